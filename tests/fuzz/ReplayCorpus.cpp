// Stands in for libFuzzer in ordinary builds: gives every file of the folders (or files) on the command line to the
// fuzz target, whole, and cut in two at every byte: a stream comes in two pieces, anything else is two inputs. What a
// corpus has taught stays learnt on machines that never fuzz.
//
// With a sanitizer, which makes a run ten times as long, at every seventh byte.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/fuzz/SplitInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t kStep = 7;  // no power of two: fields begin at those
#else
constexpr std::size_t kStep = 1;
#endif

std::vector<std::filesystem::path> filesOf(const std::filesystem::path &path) {
  if (!std::filesystem::is_directory(path)) return {path};
  std::vector<std::filesystem::path> files;
  for (const auto &entry : std::filesystem::directory_iterator(path))
    if (entry.is_regular_file()) files.push_back(entry.path());
  std::ranges::sort(files);
  return files;
}

void replay(const std::string &bytes) {
  const auto *data = reinterpret_cast<const std::uint8_t *>(bytes.data());
  LLVMFuzzerTestOneInput(data, bytes.size());
  if (fuzzSplitInput != nullptr) {
    for (std::size_t at = 1; fuzzSplitInput(data, bytes.size(), at); at += kStep) {
    }
    return;
  }
  for (std::size_t at = 1; at < bytes.size(); at += kStep) {
    // Copies, so that reading past an end is seen.
    const std::vector<std::uint8_t> first(data, data + at);
    const std::vector<std::uint8_t> second(data + at, data + bytes.size());
    LLVMFuzzerTestOneInput(first.data(), first.size());
    LLVMFuzzerTestOneInput(second.data(), second.size());
  }
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
      replay(bytes);
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
