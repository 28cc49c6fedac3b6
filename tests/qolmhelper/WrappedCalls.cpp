// The C library calls of main under a test's control, each by an environment variable:
//   VPNCTL_TEST_GETOPT   results of getopt_long one after the other, parted by blanks, then -1; unset: the real one
//   VPNCTL_TEST_SLEEP    set: sleep says on standard error how long it was to sleep, and returns at once
//   VPNCTL_TEST_PENDING  set: SIGUSR1 arrives just before sigpending looks

#include <getopt.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

extern "C" {
int __real_getopt_long(int argc, char *const *argv, const char *shorts, const option *longs, int *index);
unsigned __real_sleep(unsigned seconds);
int __real_sigpending(sigset_t *set);

int __wrap_getopt_long(int argc, char *const *argv, const char *shorts, const option *longs, int *index) {
  const char *const results = std::getenv("VPNCTL_TEST_GETOPT");
  if (results == nullptr) return __real_getopt_long(argc, argv, shorts, longs, index);
  static std::istringstream left{std::string(results)};
  int result = -1;
  return left >> result ? result : -1;
}

unsigned __wrap_sleep(unsigned seconds) {
  if (std::getenv("VPNCTL_TEST_SLEEP") == nullptr) return __real_sleep(seconds);
  std::fprintf(stderr, "sleep(%u)\n", seconds);
  return 0;
}

int __wrap_sigpending(sigset_t *set) {
  if (std::getenv("VPNCTL_TEST_PENDING") != nullptr) kill(getpid(), SIGUSR1);
  return __real_sigpending(set);
}
}
