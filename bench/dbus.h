// The same work between processes with sd-bus, over a dbus-broker of their own.
#pragma once

#include <cstddef>
#include <memory>

namespace bench {

// A request and its response.
class DbusRoundTrip {
 public:
  // Starts the broker and the answering process. Null when that fails, after printing why.
  static std::unique_ptr<DbusRoundTrip> start();
  virtual ~DbusRoundTrip() = default;

  // The time of one call with `size` bytes in each direction, in microseconds.
  virtual double once(size_t size) = 0;
};

// Signals to many subscribers.
class DbusFanOut {
 public:
  // Starts the broker and `subscribers` processes, each of which writes a byte to `confirmations`
  // whenever it has received `burst` more signals. Null as above.
  static std::unique_ptr<DbusFanOut> start(int subscribers, int burst, int confirmations);
  virtual ~DbusFanOut() = default;

  // Sends `count` signals with `size` bytes each.
  virtual void send(int count, size_t size) = 0;
};

}  // namespace bench
