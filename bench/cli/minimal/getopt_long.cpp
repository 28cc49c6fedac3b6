#include <getopt.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char **argv) {
  const option options[] = {{"count", required_argument, nullptr, 'c'},
                            {"output", required_argument, nullptr, 'o'},
                            {"verbose", no_argument, nullptr, 'v'},
                            {"help", no_argument, nullptr, 'h'},
                            {}};
  long count = 0;
  const char *output = "";
  int verbose = 0;
  for (int found = 0; (found = getopt_long(argc, argv, "c:o:vh", options, nullptr)) >= 0;) {
    if (found == 'c') count = std::strtol(optarg, nullptr, 10);
    if (found == 'o') output = optarg;
    if (found == 'v') verbose = 1;
    if (found == '?') return 2;
    if (found == 'h') {
      std::puts("Usage: minimal [-c N] [-o FILE] [-v]");
      return 0;
    }
  }
  std::printf("%ld %s %d\n", count, output, verbose);
  return 0;
}
