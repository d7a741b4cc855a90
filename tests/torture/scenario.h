// What scenarios are made of.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <span>

namespace torture {

// Work that calls the library, in a process of its own with nothing set up. Run again after its
// end, it does the same again. True: everything was done and checked. False: something was not,
// and a call said so or could not have said so.
struct Scenario {
  const char *name;
  bool (*run)();
};

std::span<const Scenario> message_scenarios();
std::span<const Scenario> utility_scenarios();

// The applications that scenarios talk to; they run in processes of their own, call ready() when
// they are registered, and never return.
[[noreturn]] void serve_messages(void (*ready)());
[[noreturn]] void serve_notifications(void (*ready)());
inline constexpr const char *kMessageServant = "servant";

// Whether a call succeeded (status 0). A status that is not among those that its header states is a
// fault.
bool succeeded(const char *call, int64_t status, std::initializer_list<int64_t> stated);

// A fault unless `holds`; returns it.
bool must(bool holds, const char *what);

}  // namespace torture
