// How much each user has of what the server keeps for its clients.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "msgsvr/account.h"

namespace msgsvr {

class Journal;

// The accounts of all users who have connections.
class Accounts {
 public:
  Accounts(const Limits &limits, Journal *journal) : limits_(limits), journal_(journal) {}

  // For a new connection of that user.
  std::shared_ptr<Account> open(std::string user_name);
  // Takes one more of that kind for the connection; an empty share if that is one too many. If only
  // its user has too many, `make_room` may give up something that nobody owns any more, and returns
  // whether it did.
  using MakeRoom = std::function<bool(const Account &user)>;
  Share share(const std::shared_ptr<Account> &connection, Kept kind,
              const MakeRoom &make_room = nullptr);
  // The user of that connection is refused more of `what`.
  void note_refusal(const Account &connection, std::string_view what);

 private:
  const Limits limits_;
  Journal *journal_;
  std::map<std::string, std::weak_ptr<Account>> users_;
};

}  // namespace msgsvr
