// Looks for secrets in the memory of processes: memory [--if-any] NAME SECRETS
//
// SECRETS is a file with the secrets, a zero byte after each. Searches every process of that name (as /proc tells it)
// that there is now. Prints where pieces of a secret stand, one line for each place, and how much was searched. Status
// 0 if there is nothing; 1 if there is something; 2 for a failure, which it is, too, that there was nothing to search:
// with --if-any there need be no such process, but one that is there must be readable.
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <stdexcept>

#include "MemorySearch.h"

static std::vector<pid_t> processesNamed(const std::string &name) {
  std::vector<pid_t> found;
  for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
    std::string comm;
    std::getline(std::ifstream(entry.path() / "comm"), comm);
    const pid_t process = std::atoi(entry.path().filename().c_str());
    if (process > 0 && comm == name) found.push_back(process);
  }
  return found;
}

static std::vector<std::string> secretsIn(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  std::vector<std::string> secrets;
  for (std::string secret; std::getline(file, secret, '\0');) secrets.push_back(secret);
  if (secrets.empty()) throw std::runtime_error("no secrets in " + path);
  return secrets;
}

// Also while nobody has waited for it yet.
static bool hasEnded(pid_t process) {
  std::error_code error;
  static_cast<void>(std::filesystem::read_symlink("/proc/" + std::to_string(process) + "/exe", error));
  return error == std::errc::no_such_file_or_directory || error == std::errc::no_such_process;
}

int main(int argc, char **argv) try {
  const bool needsNone = argc == 4 && std::string(argv[1]) == "--if-any";
  if (argc != 3 && !needsNone) throw std::runtime_error("usage: memory [--if-any] NAME SECRETS");
  const std::string name = argv[argc - 2];
  const auto secrets = secretsIn(argv[argc - 1]);
  std::vector<std::uint64_t> searched(secrets.size());  // bytes of all processes, for each secret
  bool found = false;
  for (const pid_t process : processesNamed(name)) {
    for (std::size_t i = 0; i < secrets.size(); ++i) {
      const auto result = lab::MemorySearch(secrets[i]).in(process);
      if (result.searched == 0 && !hasEnded(process))
        throw std::runtime_error("the memory of " + name + " (" + std::to_string(process) + ") cannot be read");
      searched[i] += result.searched;
      const std::string which = i == 0 ? "the secret" : "secret " + std::to_string(i + 1);
      for (const auto &finding : result.findings)
        std::cout << which << " (" << finding.form << ") stands in the memory of " << name << ": " << std::hex
                  << finding.address << std::dec << " " << finding.mapping << "\n";
      std::cout << "searched " << result.searched / 1024 << " KiB of " << name << " for " << which << "\n";
      found = found || !result.findings.empty();
    }
  }
  if (!needsNone && std::find(searched.begin(), searched.end(), 0) != searched.end())
    throw std::runtime_error("there is no " + name + " to search");
  return found ? 1 : 0;
} catch (const std::exception &error) {
  std::cerr << "memory: " << error.what() << "\n";
  return 2;
}
