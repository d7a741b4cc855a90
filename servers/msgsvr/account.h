// What the server keeps for its clients is counted for each connection and for each user, so that
// nobody can fill the server at the expense of others.
#pragma once

#include <array>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace msgsvr {

// What is counted.
enum class Kept { kConnections, kUnfinished, kSubscriptions, kPoints, kPaths, kDescriptors, kJobs };
constexpr size_t kKindsKept = 7;

// How much of each kind the clients of one user may have together. A single connection may have a
// quarter of it.
using Limits = std::array<size_t, kKindsKept>;

// A connection's account points to its user's; a user's account points to none.
struct Account {
  std::string name;  // of the user, for log lines
  std::shared_ptr<Account> user;
  std::array<size_t, kKindsKept> kept{};
  uint64_t refusals = 0;

  size_t of(Kept kind) const { return kept[static_cast<size_t>(kind)]; }
};

// A part of what a connection and its user may have; its destructor gives it back. It may outlive
// the connection.
class Share {
 public:
  Share() = default;
  Share(std::shared_ptr<Account> connection, Kept kind)
      : account_(std::move(connection)), kind_(static_cast<size_t>(kind)) {}
  Share(Share &&other) noexcept
      : account_(std::move(other.account_)),
        kind_(other.kind_),
        amount_(std::exchange(other.amount_, 0)) {}
  Share &operator=(Share &&other) noexcept {
    std::swap(account_, other.account_);
    std::swap(kind_, other.kind_);
    std::swap(amount_, other.amount_);
    return *this;
  }
  ~Share() {
    assert(account_ == nullptr || account_->kept[kind_] >= amount_);
    assert(account_ == nullptr || account_->user->kept[kind_] >= amount_);
    count(-amount_);
  }

  explicit operator bool() const { return amount_ > 0; }
  size_t amount() const { return amount_; }
  // The account of the user whose share it is; null for none.
  const Account *user() const { return account_ == nullptr ? nullptr : account_->user.get(); }

  // False, without a change, when that would be more than the connection or its user may have.
  bool grow(const Limits &limits, size_t more = 1) {
    if (own_part_is_full(limits, more) || account_->user->kept[kind_] + more > limits[kind_]) {
      return false;
    }
    count(more);
    amount_ += more;
    return true;
  }
  // Whether the connection's own limit, and not its user's, forbids so much more.
  bool own_part_is_full(const Limits &limits, size_t more = 1) const {
    const bool one_of_many = static_cast<Kept>(kind_) != Kept::kConnections;
    return account_->kept[kind_] + more > (one_of_many ? limits[kind_] / 4 : limits[kind_]);
  }

 private:
  void count(size_t more) {  // wraps to count down
    if (account_ == nullptr) return;
    account_->kept[kind_] += more;
    account_->user->kept[kind_] += more;
  }

  std::shared_ptr<Account> account_;
  size_t kind_ = 0;
  size_t amount_ = 0;
};

}  // namespace msgsvr
