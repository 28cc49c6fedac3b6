#include "helper/OwnLimits.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/personality.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>

#include "foundation/FileDescriptor.h"

namespace helper {

namespace {

struct Limit {
  decltype(RLIMIT_CPU) resource;
  rlimit wanted;
};

constexpr rlimit kUnlimited{RLIM_INFINITY, RLIM_INFINITY};
constexpr rlim_t kKi = 1024;

// What systemd gives a service. RLIMIT_CORE is not here: protectProcessMemory() has it.
constexpr std::array kLimits{Limit{RLIMIT_CPU, kUnlimited},
                             Limit{RLIMIT_FSIZE, kUnlimited},
                             Limit{RLIMIT_DATA, kUnlimited},
                             Limit{RLIMIT_STACK, {8192 * kKi, RLIM_INFINITY}},
                             Limit{RLIMIT_RSS, kUnlimited},
                             Limit{RLIMIT_NPROC, kUnlimited},
                             Limit{RLIMIT_NOFILE, {1 * kKi, 512 * kKi}},
                             Limit{RLIMIT_MEMLOCK, {8192 * kKi, 8192 * kKi}},
                             Limit{RLIMIT_AS, kUnlimited},
                             Limit{RLIMIT_LOCKS, kUnlimited},
                             Limit{RLIMIT_SIGPENDING, kUnlimited},
                             Limit{RLIMIT_MSGQUEUE, {800 * kKi, 800 * kKi}},
                             Limit{RLIMIT_NICE, {0, 0}},
                             Limit{RLIMIT_RTPRIO, {0, 0}},
                             Limit{RLIMIT_RTTIME, kUnlimited}};

void setLimit(const Limit &limit) {
  if (::setrlimit(limit.resource, &limit.wanted) == 0) return;
  // We may not raise the hard limit: as much as it leaves.
  rlimit now = {};
  if (::getrlimit(limit.resource, &now) < 0) return;
  now.rlim_cur = std::min(limit.wanted.rlim_cur, now.rlim_max);
  ::setrlimit(limit.resource, &now);
}

void stopTimers() {
  constexpr itimerval none = {};
  for (const auto timer : {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF}) ::setitimer(timer, &none, nullptr);
  constexpr unsigned long kUsualSlack = 50000;  // nanoseconds by which the kernel may be late
  ::prctl(PR_SET_TIMERSLACK, kUsualSlack, 0, 0, 0);
}

void takeUsualPriority() {
  constexpr sched_param kNoPriority = {};
  ::sched_setscheduler(0, SCHED_OTHER, &kNoPriority);
  ::setpriority(PRIO_PROCESS, 0, 0);
  // 8192 processors; the kernel takes those that there are, and that our control group has.
  std::array<unsigned long, 128> all;
  all.fill(~0UL);
  ::syscall(SYS_sched_setaffinity, 0, sizeof(all), all.data());
  constexpr int kThisProcess = 1;  // IOPRIO_WHO_PROCESS
  ::syscall(SYS_ioprio_set, kThisProcess, 0, 0);
  const vpnctl::FileDescriptor score(::open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC));
  if (score) static_cast<void>(!::write(score.get(), "0", 1));  // which takes a right that a container may lack
}

}  // namespace

void takeOwnLimits() {
  stopTimers();
  std::signal(SIGXFSZ, SIG_IGN);
  for (const Limit &limit : kLimits) setLimit(limit);
  takeUsualPriority();
  ::personality(PER_LINUX);
  // The starter's end is told by its socket, and takes time to deal with.
  ::prctl(PR_SET_PDEATHSIG, 0, 0, 0, 0);
}

}  // namespace helper
