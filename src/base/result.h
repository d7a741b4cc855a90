// A value, or the status that says why there is none.
#pragma once

#include <optional>
#include <utility>

#include "base/status.h"

namespace msgapi {

template <typename T>
class [[nodiscard]] Result {
 public:
  Result(T value) : value_(std::move(value)), status_(Status::kOk) {}
  // `status` says why there is no value, so it is never kOk.
  Result(Status status) : status_(status) {}

  explicit operator bool() const { return value_.has_value(); }
  Status status() const { return status_; }
  T &operator*() { return *value_; }
  const T &operator*() const { return *value_; }
  T *operator->() { return &*value_; }
  const T *operator->() const { return &*value_; }

 private:
  std::optional<T> value_;
  Status status_;
};

}  // namespace msgapi
