#include "companions/run/SecretSource.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "foundation/FileDescriptor.h"
#include "linux/ChildProcess.h"

namespace companions {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using vpnctl::errnoError;
using vpnctl::Error;
using vpnctl::FileDescriptor;
using vpnctl::Result;
using vpnctl::Secret;

namespace {

constexpr std::size_t kLongest = 4096;

Secret startOf(const Secret &bytes, std::size_t size) { return Secret(bytes.bytes().first(size)); }

// BYTES without the newline at their end.
Result<Secret> lineIn(const Secret &bytes, std::size_t size, const std::string &name) {
  if (size > kLongest) return Error{"Secret", 0, name + " is longer than " + std::to_string(kLongest) + " bytes"};
  const std::string_view text = bytes.text().substr(0, size);
  if (text.find('\0') != std::string_view::npos) return Error{"Secret", 0, name + " holds a zero byte"};
  if (text.ends_with("\r\n")) return startOf(bytes, size - 2);
  return startOf(bytes, text.ends_with("\n") ? size - 1 : size);
}

// Until its end, its first newline if UNTIL_NEWLINE, or one byte more than the longest secret.
class Reader {
 public:
  Reader(int file, int interrupt, milliseconds deadline)
      : file_(file), interrupt_(interrupt), end_(steady_clock::now() + deadline) {}

  // How many bytes of BYTES were filled.
  Result<std::size_t> read(Secret &bytes, bool untilNewline, const std::string &name) {
    std::size_t size = 0;
    while (size < bytes.size()) {
      if (const auto status = wait(name); !status) return status.error();
      const ssize_t count = ::read(file_, bytes.mutableBytes().data() + size, bytes.size() - size);
      if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
      // A terminal that is hung up.
      if (count < 0) return errnoError(errno, "read " + name);
      if (count == 0) return size;
      size += static_cast<std::size_t>(count);
      if (untilNewline && bytes.bytes()[size - 1] == '\n') return size;
    }
    return size;
  }

 private:
  vpnctl::Status wait(const std::string &name) {
    while (true) {
      std::array<pollfd, 2> ready{{{file_, POLLIN, 0}, {interrupt_, POLLIN, 0}}};
      const auto left = std::chrono::duration_cast<milliseconds>(end_ - steady_clock::now()).count();
      const int count = left < 0 ? 0 : ::poll(ready.data(), ready.size(), static_cast<int>(left));
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) return errnoError(errno, "wait for " + name);
      if (count == 0) return Error{"Questioner", 0, "nobody has answered in time"};
      if (ready[1].revents != 0) return Error{"Questioner", kInterrupted, "the question was interrupted"};
      return {};
    }
  }

  int file_;
  int interrupt_;
  steady_clock::time_point end_;
};

// While it stands, what is typed is not shown.
class NoEcho {
 public:
  explicit NoEcho(int terminal) : terminal_(terminal), known_(::tcgetattr(terminal, &before_) == 0) {
    if (!known_) return;
    termios silent = before_;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
    silent.c_lflag |= ICANON;
    ::tcsetattr(terminal_, TCSAFLUSH, &silent);
  }
  NoEcho(const NoEcho &) = delete;
  NoEcho &operator=(const NoEcho &) = delete;
  ~NoEcho() {
    if (known_) ::tcsetattr(terminal_, TCSAFLUSH, &before_);
  }
  bool isPossible() const { return known_; }

 private:
  int terminal_;
  termios before_{};
  bool known_;
};

// Names come from a file: no terminal is made to do anything by them.
std::string printable(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7f; }, '?');
  return text;
}

Result<Secret> askOnTerminal(int terminal, const std::string &question, const Questioner &questioner) {
  const NoEcho silence(terminal);
  if (!silence.isPossible()) return Error{"Questioner", 0, questioner.terminal + " is no terminal"};
  if (const auto asked = vpnctl::writeAll(terminal, question + " ", questioner.terminal); !asked) return asked.error();
  Secret bytes = Secret::ofSize(kLongest + 2);
  const auto size = Reader(terminal, questioner.interrupt, questioner.deadline).read(bytes, true, "the answer");
  // The newline that was typed was not shown either. The answer counts, whatever becomes of this.
  static_cast<void>(vpnctl::writeAll(terminal, "\n", questioner.terminal));
  if (!size) return size.error();
  return lineIn(bytes, *size, "the answer");
}

Result<Secret> askThroughSystemd(const std::string &question, const Questioner &questioner) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) < 0) return errnoError(errno, "make a pipe");
  const FileDescriptor answer(ends[0]);
  FileDescriptor itsEnd(ends[1]);
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(questioner.deadline).count();
  auto child = linux::ChildProcess::spawn(
      {questioner.askPassword, "--no-tty", "--id=vpnctl-run", "--timeout=" + std::to_string(seconds), question},
      {"PATH=/usr/bin:/bin"}, {.error = STDERR_FILENO, .output = itsEnd.get()});
  if (!child) return child.error();
  itsEnd.reset();
  Secret bytes = Secret::ofSize(kLongest + 2);
  const auto size = Reader(answer.get(), questioner.interrupt, questioner.deadline + std::chrono::seconds(5))
                        .read(bytes, false, "the answer");
  if (!size) return size.error();
  if (!child->waitFor(std::chrono::seconds(5)) || !child->end().exited || child->end().code != 0)
    return Error{"Questioner", 0, "nobody has answered " + questioner.askPassword};
  return lineIn(bytes, *size, "the answer");
}

}  // namespace

Result<Secret> secretFromFile(const std::string &file) {
  const FileDescriptor open(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!open) return errnoError(errno, "open " + file);
  Secret bytes = Secret::ofSize(kLongest + 3);
  const auto size = Reader(open.get(), -1, std::chrono::seconds(30)).read(bytes, false, file);
  if (!size) return size.error();
  return lineIn(bytes, *size, file);
}

Result<std::optional<Secret>> secretFromCredential(const std::optional<std::string> &folder, const std::string &name) {
  if (!folder) return std::optional<Secret>();
  const std::string file = *folder + "/" + name;
  if (::access(file.c_str(), F_OK) < 0) return std::optional<Secret>();
  auto secret = secretFromFile(file);
  if (!secret) return secret.error();
  return std::optional<Secret>(std::move(*secret));
}

Result<Secret> askForSecret(const std::string &question, const Questioner &questioner) {
  const FileDescriptor terminal(::open(questioner.terminal.c_str(), O_RDWR | O_CLOEXEC | O_NOCTTY));
  if (terminal) return askOnTerminal(terminal.get(), printable(question), questioner);
  return askThroughSystemd(printable(question), questioner);
}

}  // namespace companions
