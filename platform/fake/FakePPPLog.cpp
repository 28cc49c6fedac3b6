// fopen of the linked program (-Wl,--wrap=fopen): the PPP log lies where the scene says, so that tests neither need nor
// see the machine's.

#include <cstdio>
#include <cstring>

#include "platform/fake/FakePlatform.h"

extern "C" {

std::FILE *__real_fopen(const char *path, const char *mode);

std::FILE *__wrap_fopen(const char *path, const char *mode) {
  if (std::strcmp(path, "/var/log/ppp.log") != 0) return __real_fopen(path, mode);
  platform::fake::FakePlatform &platform = platform::fake::FakePlatform::instance();
  platform.enter("fopen", path);
  return __real_fopen(platform.pppLogPath.c_str(), mode);
}
}
