// What a scenario is, and helpers for scenarios.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <span>

namespace torture {

// Work that calls the library, in a process of its own in which nothing is set up. When it runs
// again, it does the same again. True: everything was done and checked. False: something was not
// done, and a call has reported that, or had no way to.
struct Scenario {
  const char *name;
  bool (*run)();
};

std::span<const Scenario> message_scenarios();
std::span<const Scenario> utility_scenarios();

// The applications that scenarios talk to. They run in processes of their own, call ready() when
// they are registered, and never return.
[[noreturn]] void serve_messages(void (*ready)());
[[noreturn]] void serve_notifications(void (*ready)());
inline constexpr const char *kMessageServant = "servant";

// Whether a call succeeded (status 0). A status that its header does not state is a fault.
bool succeeded(int64_t status, std::initializer_list<int64_t> stated,
               const char *file = __builtin_FILE(), int line = __builtin_LINE());

// Reports a fault unless `holds`. Returns `holds`.
bool must(bool holds, const char *what);

}  // namespace torture
