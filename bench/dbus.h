// The same work between processes with sd-bus, over a dbus-broker of their own.
#pragma once

#include <cstddef>
#include <memory>

namespace bench {

// A request and its response.
class DbusRoundTrip {
 public:
  // Starts the broker and the answering process. Null, with a line that says why, where that does
  // not work.
  static std::unique_ptr<DbusRoundTrip> start();
  virtual ~DbusRoundTrip() = default;

  // The time of one call with `size` bytes there and back, in microseconds.
  virtual double once(size_t size) = 0;
};

// Signals to many subscribers.
class DbusFanOut {
 public:
  // Starts the broker and `subscribers` processes, each of which writes a byte to `confirmations`
  // whenever it has received `burst` more signals. Null as above.
  static std::unique_ptr<DbusFanOut> start(int subscribers, int burst, int confirmations);
  virtual ~DbusFanOut() = default;

  // Sends that many signals with `size` bytes each.
  virtual void send(int count, size_t size) = 0;
};

}  // namespace bench
