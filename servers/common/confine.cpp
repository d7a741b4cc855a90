// The filter names what is refused, not what is allowed: later C libraries and kernels use calls
// that nobody knows yet, and a server that cannot go on helps nobody (seccomp(2)).

#include "common/confine.h"

#include <sys/prctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "common/log_line.h"

#ifdef MSGAPI_SECCOMP
#include <seccomp.h>
#endif

namespace servers {
namespace {

#ifdef MSGAPI_SECCOMP

constexpr const char *kRefused[] = {
    // Other processes.
    "ptrace", "process_vm_readv", "process_vm_writev", "kcmp", "pidfd_getfd", "process_madvise",
    // File systems and namespaces.
    "mount", "umount", "umount2", "mount_setattr", "move_mount", "open_tree", "fsopen", "fsconfig",
    "fsmount", "fspick", "pivot_root", "chroot", "setns", "unshare", "open_by_handle_at", "swapon",
    "swapoff", "quotactl", "quotactl_fd",
    // The machine.
    "reboot", "kexec_load", "kexec_file_load", "init_module", "finit_module", "delete_module",
    "settimeofday", "clock_settime", "clock_settime64", "adjtimex", "clock_adjtime",
    "clock_adjtime64", "stime", "sethostname", "setdomainname", "syslog", "acct", "iopl", "ioperm",
    "vhangup",
    // Large parts of the kernel that are of no use here.
    "bpf", "perf_event_open", "userfaultfd", "keyctl", "add_key", "request_key", "io_uring_setup",
    "io_uring_enter", "io_uring_register", "fanotify_init", "lookup_dcookie", "nfsservctl",
    "personality", "modify_ldt", "vm86", "vm86old", "uselib", "ustat", "sysfs", "_sysctl"};

constexpr const char *kPrograms[] = {"execve", "execveat"};

// Adds the rule for a call. 0, or the library's negative errno. A call that this architecture does
// not have needs no rule.
int refuse(scmp_filter_ctx filter, const char *name) {
  const int number = ::seccomp_syscall_resolve_name(name);
  if (number == __NR_SCMP_ERROR) return 0;
  return ::seccomp_rule_add(filter, SCMP_ACT_ERRNO(EPERM), number, 0);
}

// 0 or a negative errno.
int load_filter(Programs programs) {
  scmp_filter_ctx filter = ::seccomp_init(SCMP_ACT_ALLOW);
  if (filter == nullptr) return -ENOMEM;
  int result = ::seccomp_attr_set(filter, SCMP_FLTATR_CTL_TSYNC, 1);
  for (const char *name : kRefused) {
    if (result == 0) result = refuse(filter, name);
  }
  if (programs == Programs::kNone) {
    for (const char *name : kPrograms) {
      if (result == 0) result = refuse(filter, name);
    }
    // Raw frames, and the kernel's cryptography.
    for (const int family : {AF_PACKET, AF_ALG}) {
      if (result != 0) break;
      result = ::seccomp_rule_add(filter, SCMP_ACT_ERRNO(EPERM), SCMP_SYS(socket), 1,
                                  SCMP_A0(SCMP_CMP_EQ, static_cast<scmp_datum_t>(family)));
    }
  }
  if (result == 0) result = ::seccomp_load(filter);
  ::seccomp_release(filter);
  return result;
}

#else

int load_filter(Programs) {
  return -ENOSYS;
}

#endif

}  // namespace

void confine(Programs programs) noexcept {
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
    log_line("this process may still gain rights: {}", std::strerror(errno));
  }
  const int result = load_filter(programs);
  if (result != 0) log_line("there is no filter of system calls: {}", std::strerror(-result));
}

}  // namespace servers
