// Runs vpnctl-fake as a process: a folder of its own with a configuration and a script, its output on pipes, a deadline
// on everything.
//
// Usual sequence: a Scene; a ToolProcess from it; waitForError and send as needed; finish. A process that is still
// there at its deadline is killed and the test fails.

#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "foundation/FileDescriptor.h"
#include "tests/qolmhelper/Backend.h"
#include "tests/support/TemporaryFolder.h"

namespace TN {

inline const std::string kConfiguration =
    "protocol = \"" + kProtocol +
    "\";\nip = \"192.0.2.1\";\nusername = \"ann\";\npassword = \"pw\";\nshared_secret = \"ss\";\n";
// What the tool echoes of it.
inline const std::string kEcho = "protocol: " + kProtocol + "ip: 192.0.2.1username: annpassword: pwshared_secret: ss";

// The same for another protocol.
std::string configurationFor(const std::string &protocol);

struct Scene {
  std::vector<std::string> arguments;
  std::optional<std::string> configuration = kConfiguration;  // config.qolm; none: there is no such file
  std::string script;
  bool hasPPPLog = true;
  std::string program;  // empty: vpnctl-fake
  std::map<std::string, std::string> environment;
  std::map<std::string, std::string> files;  // further ones, by name
  std::map<std::string, int> fileModes;      // of those
  std::vector<std::string> launcher;         // a command that starts the program, given it as arguments
  std::set<int> closed;                      // of the descriptors 0 to 2, from the start
  bool hasReader = true;                     // of standard output; false: what is written there has nowhere to go
};

struct Outcome {
  int status = -1;  // the exit status; -1 when a signal ended it
  int signal = 0;
  std::string output, error;
  std::vector<std::string> calls;  // of the platform, as the fake records them

  // The calls' names alone.
  std::vector<std::string> callNames() const;
  // How often CALL was made.
  int count(const std::string &call) const;
};

class ToolProcess {
 public:
  explicit ToolProcess(Scene scene);
  ToolProcess(const ToolProcess &) = delete;
  ToolProcess &operator=(const ToolProcess &) = delete;
  ~ToolProcess();

  // Returns when standard error holds TEXT. A test failure, and false, when the process ends before.
  [[nodiscard]] bool waitForError(const std::string &text);
  void send(int signal);
  // Waits for the end.
  Outcome finish();

  pid_t pid() const { return pid_; }
  // Standard output so far.
  const std::string &output() const { return output_; }
  std::string pppLog() const { return path("ppp.log"); }
  // A file of its working directory.
  std::string path(const std::string &name) const { return folder_.path(name); }

 private:
  // Reads what there is; false when both pipes have ended.
  bool readSome();
  void killAtDeadline();

  support::TemporaryFolder folder_;
  std::chrono::steady_clock::time_point deadline_;
  vpnctl::FileDescriptor outputPipe_, errorPipe_;
  std::string output_, error_;
  pid_t pid_ = -1;  // -1: has been waited for
};

// The whole run of a scene that ends by itself.
Outcome run(Scene scene);

}  // namespace TN
