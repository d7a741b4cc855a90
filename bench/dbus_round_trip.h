// A request and its response between two processes with sd-bus, over a dbus-broker of their own.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>

namespace bench {

class DbusRoundTrip {
 public:
  // Starts the broker and the answering process. Null, with a line that says why, where that does
  // not work.
  static std::unique_ptr<DbusRoundTrip> start();
  virtual ~DbusRoundTrip() = default;

  // The time of one call with `size` bytes there and back, in microseconds.
  virtual double once(size_t size) = 0;
};

}  // namespace bench
