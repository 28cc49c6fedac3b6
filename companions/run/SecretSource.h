// Where a secret may come from beside the configuration: a file, a credential of a systemd unit, a person.
//
// Thread rule: as plain functions; each blocks, asking until its deadline.

#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "foundation/Result.h"
#include "foundation/Secret.h"

namespace companions {

// What FILE holds, without the newline at its end; an error when it cannot be read, is longer than a secret can be, or
// holds a zero byte.
vpnctl::Result<vpnctl::Secret> secretFromFile(const std::string &file);

// The credential NAME in FOLDER, which is $CREDENTIALS_DIRECTORY; nothing when there is none.
vpnctl::Result<std::optional<vpnctl::Secret>> secretFromCredential(const std::optional<std::string> &folder,
                                                                   const std::string &name);

// How a person is asked.
struct Questioner {
  std::string terminal = "/dev/tty";
  std::string askPassword;  // systemd-ask-password's absolute path, for where there is no terminal
  int interrupt = -1;       // readable: give up asking
  std::chrono::milliseconds deadline{std::chrono::minutes(5)};
};

inline constexpr int kInterrupted = 1;  // the code of an error of the domain "Questioner"

// What a person answers to QUESTION, on the terminal without echo.
vpnctl::Result<vpnctl::Secret> askForSecret(const std::string &question, const Questioner &questioner);

}  // namespace companions
