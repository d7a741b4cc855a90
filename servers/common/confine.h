// Gives up, for good, rights that no server needs.
#pragma once

namespace servers {

// Whether the process starts programs, which are then confined, too.
enum class Programs { kNone, kStarted };

// From here on the process and what it starts gain no rights by executing a program, and the kernel
// refuses them (EPERM) system calls that no server needs: tracing other processes, mounting,
// namespaces, the machine's clock, name and kernel; with kNone also executing programs. Holds for
// all threads. What the kernel, or this build, cannot refuse is logged and stays allowed.
void confine(Programs programs) noexcept;

}  // namespace servers
