// vpnctl's configuration, read so that what it leaves out can be put in, and handed to vpnctl through a pipe: what was
// put in is on no disk, in no argument and no environment.
//
// Usual sequence: read(), the setters, then deliver() for each run of vpnctl. Thread rule: as a plain value. read()
// blocks on the disk, or on the pipe that the file is.

#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"
#include "foundation/Secret.h"

namespace companions {

class ToolConfiguration {
 public:
  // What vpnctl is given: the name of a file, and what its standard input has to be for that (-1: nothing).
  struct Delivery {
    std::string path;
    vpnctl::FileDescriptor input;
  };

  // What stands in the file under a name, without what it says.
  struct Setting {
    enum class Kind { text, empty, notUTF8, other };
    std::string name;
    unsigned line = 0;
    Kind kind = Kind::other;
  };

  // An error when PATH cannot be read or is not libconfig's syntax, also when libconfig does not find out before vpnctl
  // would.
  static vpnctl::Result<ToolConfiguration> read(const std::string &path);
  // The file as it is, whatever it holds.
  static ToolConfiguration unread(const std::string &path);

  // Texts that the file holds; none where it has no such text.
  const std::optional<std::string> &protocol() const { return protocol_; }
  const std::optional<std::string> &server() const { return server_; }
  const std::optional<std::string> &username() const { return username_; }
  bool hasPassword() const { return password_.has_value(); }
  bool hasSharedSecret() const { return sharedSecret_.has_value(); }
  // Only L2TP has a use for one; vpnctl wants some text all the same.
  bool needsSharedSecret() const { return protocol_ != "pptp"; }
  // Which of the five texts is not there; empty: none.
  std::string_view missing() const;
  // All that the file holds on its outermost level, in order.
  const std::vector<Setting> &settings() const { return settings_; }

  void setPassword(vpnctl::Secret password);
  void setSharedSecret(vpnctl::Secret secret);

  // What is delivered from here on has none, unless it is the file itself.
  void forgetSecrets();

  // The file itself when nothing was set; the five texts in a pipe otherwise, or where the file can be read only once.
  vpnctl::Result<Delivery> deliver() const;

 private:
  explicit ToolConfiguration(std::string path) : path_(std::move(path)) {}
  vpnctl::Secret text() const;

  std::string path_;
  bool isChanged_ = false;
  std::vector<Setting> settings_;
  std::optional<std::string> protocol_;
  std::optional<std::string> server_;
  std::optional<std::string> username_;
  std::optional<vpnctl::Secret> password_;
  std::optional<vpnctl::Secret> sharedSecret_;
};

}  // namespace companions
