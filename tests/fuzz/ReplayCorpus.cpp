// Stands in for libFuzzer in ordinary builds: gives every file of the folders (or files) on the command line to the
// fuzz target, once. What a corpus has taught stays learnt on machines that never fuzz.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

namespace {

std::vector<std::filesystem::path> filesOf(const std::filesystem::path &path) {
  if (!std::filesystem::is_directory(path)) return {path};
  std::vector<std::filesystem::path> files;
  for (const auto &entry : std::filesystem::directory_iterator(path)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::ranges::sort(files);
  return files;
}

int replay(int argc, char **argv) {
  std::size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    for (const std::filesystem::path &file : filesOf(argv[i])) {
      std::ifstream stream(file, std::ios::binary);
      if (!stream) {
        std::fprintf(stderr, "cannot read %s\n", file.c_str());
        return 1;
      }
      const std::string bytes{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
      // Said before, so that a crash names its file.
      std::printf("%s\n", file.c_str());
      std::fflush(stdout);
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size());
      ++count;
    }
  }
  std::printf("%zu inputs\n", count);
  return count > 0 ? 0 : 1;  // an empty corpus tests nothing
}

}  // namespace

int main(int argc, char **argv) {
  try {
    return replay(argc, argv);
  } catch (const std::exception &exception) {
    std::fprintf(stderr, "%s\n", exception.what());
    return 1;
  }
}
