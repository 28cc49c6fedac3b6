// A stand-in for charon: listens on charon.vici beside itself, writes charon.pid, and ends on SIGTERM without tidying
// up. Files beside it change what it does: "mute" (no socket), "dying" (ends at once with status 3), "stubborn" (only
// SIGKILL ends it).

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

int main(int, char **argv) {
  const std::filesystem::path folder = std::filesystem::path(argv[0]).parent_path();
  const auto is = [&](const char *what) { return std::filesystem::exists(folder / what); };
  if (is("dying")) return 3;
  if (is("stubborn")) signal(SIGTERM, SIG_IGN);
  std::ofstream(folder / "charon.pid") << getpid() << "\n";
  const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  if (!is("mute")) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = folder / "charon.vici";
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    unlink(path.c_str());
    if (bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) < 0 || listen(listener, 8) < 0) return 2;
  }
  while (true) pause();
}
