#include "tests/support/TracedProcess.h"

#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <iterator>

namespace support {

#ifdef __x86_64__

namespace {

constexpr int kThrown = 99;

[[noreturn]] void child(const std::function<int()> &work) {
  if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) < 0) ::_exit(kThrown);
  const rlimit none = {0, 0};
  ::setrlimit(RLIMIT_CORE, &none);  // some faults end in an abort, as they should
  ::raise(SIGSTOP);
  try {
    ::_exit(work());
  } catch (...) {
    ::_exit(kThrown);
  }
}

// A sanitizer makes these calls of its own in between, and does not survive their faults.
bool isOfSanitizer([[maybe_unused]] long call) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  constexpr long kCalls[] = {SYS_mmap,  SYS_munmap,      SYS_mremap,      SYS_mprotect,       SYS_madvise, SYS_brk,
                             SYS_futex, SYS_sched_yield, SYS_sigaltstack, SYS_rt_sigprocmask, SYS_gettid,  SYS_getpid};
  return std::ranges::find(kCalls, call) != std::end(kCalls);
#else
  return false;
#endif
}

// The register that is the MEMBER of user_regs_struct.
#define REGISTER(member) reinterpret_cast<void *>(offsetof(user_regs_struct, member))

class Tracer {
 public:
  Tracer(pid_t process, const CallFault &fault) : process_(process), fault_(fault) {}

  std::optional<TracedProcess> run() {
    int status = 0;
    if (::waitpid(process_, &status, 0) != process_ || !WIFSTOPPED(status)) return {};
    const auto options = PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL;
    if (::ptrace(PTRACE_SETOPTIONS, process_, nullptr, options) < 0) {
      ::kill(process_, SIGKILL);
      ::waitpid(process_, nullptr, 0);
      return {};
    }
    int pending = 0;
    while (true) {
      ::ptrace(PTRACE_SYSCALL, process_, nullptr, pending);
      if (::waitpid(process_, &status, 0) != process_) return {};
      if (!WIFSTOPPED(status)) break;
      const bool isCall = WSTOPSIG(status) == (SIGTRAP | 0x80);
      pending = isCall ? 0 : WSTOPSIG(status);
      if (isCall) atCall();
    }
    if (WIFEXITED(status)) result_.exitCode = WEXITSTATUS(status);
    return std::move(result_);
  }

 private:
  // The process stands before a call or behind it, by turns.
  void atCall() {
    inside_ = !inside_;
    if (inside_) {
      errnum_ = 0;
      const long call = ::ptrace(PTRACE_PEEKUSER, process_, REGISTER(orig_rax), nullptr);
      if (isOfSanitizer(call)) return;
      result_.calls.push_back(call);
      hit_ = fault_.kind != CallFault::Kind::none && result_.calls.size() == fault_.index + 1;
      if (hit_) before();
      if (full_ && !hit_ && result_.calls.back() == SYS_write) refuse(ENOSPC);
    } else if (errnum_ != 0) {
      ::ptrace(PTRACE_POKEUSER, process_, REGISTER(rax), -static_cast<long>(errnum_));
    }
  }

  void before() {
    switch (fault_.kind) {
      case CallFault::Kind::none:
        break;
      case CallFault::Kind::kill:
        ::kill(process_, SIGKILL);
        break;
      case CallFault::Kind::fail:
        refuse(fault_.errnum);
        break;
      case CallFault::Kind::fill:
        full_ = true;
        [[fallthrough]];
      case CallFault::Kind::shorten:
        if (result_.calls.back() == SYS_write) {
          const long size = ::ptrace(PTRACE_PEEKUSER, process_, REGISTER(rdx), nullptr);
          ::ptrace(PTRACE_POKEUSER, process_, REGISTER(rdx), size > 1 ? size / 2 : size);
        }
        break;
    }
  }

  // The call in whose beginning the process stands is not made and fails with ERRNUM.
  void refuse(int errnum) {
    ::ptrace(PTRACE_POKEUSER, process_, REGISTER(orig_rax), -1L);
    errnum_ = errnum;
  }

  pid_t process_;
  const CallFault fault_;
  TracedProcess result_;
  bool inside_ = false;
  bool hit_ = false;
  bool full_ = false;
  int errnum_ = 0;  // of the call that is not made, or 0
};

}  // namespace

std::optional<TracedProcess> runTraced(const std::function<int()> &work, const CallFault &fault) {
  const pid_t process = ::fork();
  if (process < 0) return {};
  if (process == 0) child(work);
  return Tracer(process, fault).run();
}

#else

std::optional<TracedProcess> runTraced(const std::function<int()> &, const CallFault &) { return {}; }

#endif

}  // namespace support
