#include <cstdio>
#include <cxxopts.hpp>
#include <string>
#include <vector>

int main(int argc, char **argv) {
  cxxopts::Options options("minimal");
  options.add_options()("c,count", "How many", cxxopts::value<long>()->default_value("0"))(
      "o,output", "Where to write", cxxopts::value<std::string>()->default_value(""))("v,verbose", "Say what is done")(
      "h,help", "Print this text")("files", "", cxxopts::value<std::vector<std::string>>());
  options.parse_positional("files");
  try {
    const auto result = options.parse(argc, argv);
    if (result.count("help") > 0) {
      std::puts(options.help().c_str());
      return 0;
    }
    std::printf("%ld %s %d\n", result["count"].as<long>(), result["output"].as<std::string>().c_str(),
                result["verbose"].as<bool>() ? 1 : 0);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
  }
  return 0;
}
