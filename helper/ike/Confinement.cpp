#include "helper/ike/Confinement.h"

#include <grp.h>
#include <linux/audit.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <linux/udp.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <vector>

namespace helper {

using vpnctl::errnoError;
using vpnctl::Status;

namespace {

constexpr uid_t kNobody = 65534;

// Some are allowed only if one of their arguments, counted from 0, is VALUE, or has no other bits than those.
enum class Check { nothing, isExactly, hasOnly };
struct AllowedCall {
  unsigned number;
  Check check = Check::nothing;
  int argument = 0;
  unsigned value = 0;
};

constexpr AllowedCall kAllowed[] = {
    // The two sockets.
    {SYS_read},
    {SYS_recvfrom},
    {SYS_recvmsg},
    {SYS_sendto},
    {SYS_sendmsg},
    {SYS_ppoll},
    {SYS_setsockopt, Check::isExactly, 1, IPPROTO_UDP},
    {SYS_close},
    // Time and chance.
    {SYS_clock_gettime},
    {SYS_getrandom},
    // Memory, never to be run.
    {SYS_brk},
    {SYS_mmap, Check::hasOnly, 2, PROT_READ | PROT_WRITE},
    {SYS_mprotect, Check::hasOnly, 2, PROT_READ | PROT_WRITE},
    {SYS_munmap},
    {SYS_mremap},
    {SYS_madvise},
    {SYS_futex},
    // Its end.
    {SYS_rt_sigreturn},
    {SYS_rt_sigprocmask},
    {SYS_restart_syscall},
    {SYS_exit},
    {SYS_exit_group},
};

#if defined(__x86_64__)
constexpr unsigned kArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr unsigned kArchitecture = AUDIT_ARCH_AARCH64;
#elif defined(__riscv) && __riscv_xlen == 64
constexpr unsigned kArchitecture = AUDIT_ARCH_RISCV64;
#else
#error "What does <linux/audit.h> call this processor?"
#endif

sock_filter load(std::size_t offset) { return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<unsigned>(offset)); }

// Where the low half of an argument stands; its high half comes behind it on these machines.
std::size_t argumentAt(int index) { return offsetof(seccomp_data, args) + static_cast<std::size_t>(index) * 8; }

std::vector<sock_filter> program() {
  constexpr sock_filter kAllow = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
  constexpr sock_filter kKill = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS);
  std::vector<sock_filter> filter{load(offsetof(seccomp_data, arch)),
                                  BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kArchitecture, 1, 0), kKill,
                                  load(offsetof(seccomp_data, nr))};
  for (const AllowedCall &call : kAllowed) {
    if (call.check == Check::nothing) {
      filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call.number, 0, 1));
      filter.push_back(kAllow);
      continue;
    }
    filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call.number, 0, 4));
    filter.push_back(load(argumentAt(call.argument)));
    if (call.check == Check::isExactly)
      filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call.value, 1, 0));
    else
      filter.push_back(BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, ~call.value, 0, 1));
    filter.push_back(kKill);
    filter.push_back(kAllow);
  }
  filter.push_back(kKill);
  return filter;
}

Status dropRights() {
  // A process that another user's could look into or stop would not be one without rights.
  if (::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) < 0) return errnoError(errno, "hide the process");
  for (unsigned capability = 0; ::prctl(PR_CAPBSET_READ, capability, 0, 0, 0) >= 0; ++capability)
    if (::prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) < 0) return errnoError(errno, "drop a capability");
  if (::setgroups(0, nullptr) < 0 || ::setresgid(kNobody, kNobody, kNobody) < 0 ||
      ::setresuid(kNobody, kNobody, kNobody) < 0)
    return errnoError(errno, "become nobody");
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  const std::array<__user_cap_data_struct, 2> none{};
  if (::syscall(SYS_capset, &header, none.data()) < 0) return errnoError(errno, "drop all capabilities");
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) < 0) return errnoError(errno, "renounce new rights");
  // Changing the user has made it visible again.
  if (::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) < 0) return errnoError(errno, "hide the process");
  return {};
}

Status setLimits() {
  struct Limit {
    decltype(RLIMIT_CORE) resource;
    rlim_t most;
  };
  constexpr rlim_t kMebi = 1048576;
  constexpr std::array kLimits{Limit{RLIMIT_CORE, 0}, Limit{RLIMIT_FSIZE, 0}, Limit{RLIMIT_NPROC, 0},
                               Limit{RLIMIT_NOFILE, 4}, Limit{RLIMIT_DATA, 16 * kMebi}};
  for (const Limit &limit : kLimits) {
    const rlimit wanted{limit.most, limit.most};
    if (::setrlimit(limit.resource, &wanted) < 0) return errnoError(errno, "limit the process");
  }
  return {};
}

}  // namespace

Status confine() {
  // A folder of the kernel's, in which nobody can make anything.
  if (::chroot("/proc/self/fdinfo") < 0 || ::chdir("/") < 0) return errnoError(errno, "leave the file system");
  if (Status limited = setLimits(); !limited) return limited;
  if (Status dropped = dropRights(); !dropped) return dropped;
  const std::vector<sock_filter> filter = program();
  const sock_fprog whole{static_cast<unsigned short>(filter.size()), const_cast<sock_filter *>(filter.data())};
  if (::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &whole, 0, 0) < 0)
    return errnoError(errno, "filter the process's system calls");
  return {};
}

}  // namespace helper
