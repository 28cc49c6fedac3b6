#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>
#include <vector>

int main(int argc, char **argv) {
  CLI::App app;
  long count = 0;
  std::string output;
  bool verbose = false;
  std::vector<std::string> files;
  app.add_option("-c,--count", count, "How many");
  app.add_option("-o,--output", output, "Where to write");
  app.add_flag("-v,--verbose", verbose, "Say what is done");
  app.add_option("files", files);
  CLI11_PARSE(app, argc, argv);
  std::printf("%ld %s %d\n", count, output.c_str(), verbose ? 1 : 0);
  return 0;
}
