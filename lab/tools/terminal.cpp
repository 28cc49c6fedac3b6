// Runs a command at a terminal, as a person would: terminal PIDFILE COMMAND [ARGUMENT...]
//
// The command leads the terminal's session and its foreground group, reads from the terminal, and writes where this
// program writes, so that a caller can tell its two streams apart. PIDFILE gets its number. SIGINT here types Ctrl-C
// there, SIGHUP closes the terminal; the kernel makes of both what it makes of them for people. Ends as the command
// ends: with its status, or with 128 and the number of the signal that ended it.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>

static int check(int result, const char *what) {
  if (result < 0) throw std::runtime_error(std::string(what) + ": " + strerror(errno));
  return result;
}

// The file is whole as soon as it bears its name.
static void writeNumber(const std::string &path) {
  std::ofstream(path + ".new") << getpid() << std::endl;
  check(rename((path + ".new").c_str(), path.c_str()), "write the command's number");
}

[[noreturn]] static void become(char **command, const std::string &terminal, const std::string &pidFile,
                                const sigset_t &before) try {
  check(setsid(), "begin a session");
  int line = check(open(terminal.c_str(), O_RDWR), "open the terminal");  // the first one becomes the session's
  check(dup2(line, STDIN_FILENO), "read from the terminal");
  if (line != STDIN_FILENO) close(line);
  check(sigprocmask(SIG_SETMASK, &before, nullptr), "let signals through");
  writeNumber(pidFile);
  execv(command[0], command);
  throw std::runtime_error(std::string(command[0]) + ": " + strerror(errno));
} catch (const std::exception &error) {
  std::cerr << "terminal: " << error.what() << std::endl;
  _exit(127);
}

int main(int argc, char **argv) try {
  if (argc < 3) throw std::runtime_error("usage: terminal PIDFILE COMMAND [ARGUMENT...]");
  sigset_t signals, before;
  sigemptyset(&signals);
  for (int number : {SIGINT, SIGHUP, SIGCHLD}) sigaddset(&signals, number);
  check(sigprocmask(SIG_BLOCK, &signals, &before), "block signals");
  int keyboard = check(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC), "open a terminal");
  check(grantpt(keyboard), "own the terminal");
  check(unlockpt(keyboard), "unlock the terminal");
  pid_t child = check(fork(), "start a process");
  if (child == 0) become(argv + 2, ptsname(keyboard), argv[1], before);
  for (;;) {
    int status = 0, number = check(sigwaitinfo(&signals, nullptr), "wait for a signal");
    if (number == SIGINT) check(static_cast<int>(write(keyboard, "\x03", 1)), "type Ctrl-C");
    if (number == SIGHUP) close(keyboard);
    if (number == SIGCHLD && waitpid(child, &status, WNOHANG) == child)
      return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  }
} catch (const std::exception &error) {
  std::cerr << "terminal: " << error.what() << "\n";
  return 2;
}
