#include "msgsvr/accounts.h"

#include "common/log_line.h"
#include "msgsvr/journal.h"

namespace msgsvr {

std::shared_ptr<Account> Accounts::open(std::string user_name) {
  std::erase_if(users_, [](const auto &entry) { return entry.second.expired(); });
  std::weak_ptr<Account> &known = users_[user_name];
  std::shared_ptr<Account> user = known.lock();
  if (user == nullptr) {
    user = std::make_shared<Account>(Account{std::move(user_name), nullptr, {}, 0});
    known = user;
  }
  return std::make_shared<Account>(Account{{}, std::move(user), {}, 0});
}

Share Accounts::share(const std::shared_ptr<Account> &connection, Kept kind,
                      const MakeRoom &make_room) {
  Share share(connection, kind);
  while (!share.grow(limits_)) {
    if (make_room == nullptr || share.own_part_is_full(limits_) || !make_room(*connection->user)) {
      return Share();
    }
    journal_->over_limit();
  }
  return share;
}

// Logs a line for each doubling of the number, not for each refusal.
void Accounts::note_refusal(const Account &connection, std::string_view what) {
  journal_->over_limit();
  Account &user = *connection.user;
  const uint64_t times = ++user.refusals;
  if ((times & (times - 1)) != 0) return;
  servers::log_line("{} has as many {} as it may: one more is refused ({} refusals so far)",
                    user.name, what, times);
}

}  // namespace msgsvr
