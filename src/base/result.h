// A value, or the status that says why there is none. `S` is the vocabulary of an area whose codes
// are not those of base/status.h.
#pragma once

#include <cassert>
#include <optional>
#include <utility>

#include "base/status.h"

namespace msgapi {

template <typename T, typename S = Status>
class [[nodiscard]] Result {
 public:
  Result(T value) : value_(std::move(value)), status_(S::kOk) {}
  // `status` says why there is no value, so it is never kOk.
  Result(S status) : status_(status) { assert(status != S::kOk); }

  explicit operator bool() const { return value_.has_value(); }
  S status() const { return status_; }
  T &operator*() { return *value_; }
  const T &operator*() const { return *value_; }
  T *operator->() { return &*value_; }
  const T *operator->() const { return &*value_; }

 private:
  std::optional<T> value_;
  S status_;
};

}  // namespace msgapi
