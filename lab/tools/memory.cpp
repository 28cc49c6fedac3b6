// Looks for secrets in the memory of processes: memory NAME SECRETS
//
// SECRETS is a file with the secrets, a zero byte after each. Searches every process of that name (as /proc tells it)
// that there is now. Prints where pieces of a secret stand, one line for each place, and how much was searched. Status
// 0 if there is nothing, also when there is no such process; 1 if there is something; 2 for a failure.
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

int main(int argc, char **argv) try {
  if (argc != 3) throw std::runtime_error("usage: memory NAME SECRETS");
  const std::string name = argv[1];
  const auto secrets = secretsIn(argv[2]);
  bool found = false;
  for (const pid_t process : processesNamed(name)) {
    for (std::size_t i = 0; i < secrets.size(); ++i) {
      const auto result = lab::MemorySearch(secrets[i]).in(process);
      const std::string which = i == 0 ? "the secret" : "secret " + std::to_string(i + 1);
      for (const auto &finding : result.findings)
        std::cout << which << " (" << finding.form << ") stands in the memory of " << name << ": " << std::hex
                  << finding.address << std::dec << " " << finding.mapping << "\n";
      std::cout << "searched " << result.searched / 1024 << " KiB of " << name << " for " << which << "\n";
      found = found || !result.findings.empty();
    }
  }
  return found ? 1 : 0;
} catch (const std::exception &error) {
  std::cerr << "memory: " << error.what() << "\n";
  return 2;
}
