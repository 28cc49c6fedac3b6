// Stands for vpnctl in tests of what runs it. In the folder $SCRIPTED_TOOL it plays the file "script.N" of its Nth run,
// or "script" where there is none, and leaves "arguments.N", "environment.N" and "output.N" (what standard output is).
//
// A script's lines: "say TEXT" and "raw TEXT" write to standard error, with a newline or without; "out TEXT" to
// standard output; "keep" leaves what the configuration says in "config.N"; "arm" takes SIGUSR1, "wait" waits for it;
// "await NAME" waits until that file is there; "exit N", "abort". Whatever waits gives up with status 99 after a while.

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <string_view>
#include <thread>

extern char **environ;

namespace {

constexpr int kPatience = 30000;
constexpr int kGaveUp = 99;

std::string contentsOf(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

int armed = -1;

void arm() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGUSR1);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  armed = signalfd(-1, &signals, SFD_CLOEXEC);
}

void waitForSignal() {
  pollfd ready{armed, POLLIN, 0};
  if (poll(&ready, 1, kPatience) != 1) _exit(kGaveUp);
}

void await(const std::string &path) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatience);
  while (!std::filesystem::exists(path)) {
    if (std::chrono::steady_clock::now() > end) _exit(kGaveUp);
    poll(nullptr, 0, 5);
  }
}

}  // namespace

int main(int argc, char *argv[]) {
  const std::string folder = std::getenv("SCRIPTED_TOOL");
  int run = 1;
  while (std::filesystem::exists(folder + "/arguments." + std::to_string(run))) ++run;
  const auto file = [&](const std::string &name) { return folder + "/" + name + "." + std::to_string(run); };
  {
    std::ofstream arguments(file("arguments.new"));
    for (int i = 1; i < argc; ++i) arguments << argv[i] << '\n';
    std::ofstream environment(file("environment"));
    for (char **entry = environ; *entry != nullptr; ++entry) environment << *entry << '\n';
    std::ofstream output(file("output"));
    output << std::filesystem::read_symlink("/proc/self/fd/1").string();
  }
  std::filesystem::rename(file("arguments.new"), file("arguments"));

  std::ifstream script(std::filesystem::exists(file("script")) ? file("script") : folder + "/script");
  for (std::string line; std::getline(script, line);) {
    const std::size_t blank = line.find(' ');
    const std::string command = line.substr(0, blank);
    const std::string text = blank == std::string::npos ? "" : line.substr(blank + 1);
    if (command == "say") std::cerr << text + "\n";
    if (command == "raw") std::cerr << text;
    if (command == "out") std::cout << text << std::flush;
    if (command == "keep") {
      std::string_view path = argc > 1 ? argv[1] : "";
      path.remove_prefix(std::min<std::size_t>(path.size(), sizeof "--config=" - 1));
      std::ofstream(file("config"), std::ios::binary) << contentsOf(std::string(path));
    }
    if (command == "arm") arm();
    if (command == "wait") waitForSignal();
    if (command == "await") await(folder + "/" + text);
    if (command == "exit") return std::stoi(text);
    if (command == "abort") std::abort();
  }
  return 0;
}
