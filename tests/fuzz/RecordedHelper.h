// The whole helper in this process, without its links: the service on its socket, the stores in a folder in memory, and
// a record of everything that is done to the files and of every link that is made.
//
// Usual sequence: construct; send(), answers(), deeds(); leave(). Nothing runs but inside of these. Whatever a helper
// must never do ends this process. Thread rule: one thread, one helper at a time.

#pragma once

#include <systemd/sd-event.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/FileDescriptor.h"
#include "foundation/FileSystem.h"
#include "helper/HelperService.h"
#include "linux/SystemdOwners.h"
#include "tests/fuzz/DBusBytes.h"
#include "tests/support/ScriptedAuthority.h"

namespace fuzz {

// What the helper has done to the machine since the last look.
struct Deeds {
  // How far it went with a store: not at all, beside it (locks, what is written before the renaming), or with it.
  enum class Extent { none, beside, replaced };
  Extent preferences = Extent::none;
  Extent keychain = Extent::none;
  bool elsewhere = false;
  std::vector<std::string> linksMade;  // of these services
  int linksStarted = 0;
  int linksStopped = 0;

  bool operator==(const Deeds &) const = default;
};

class RecordingFileSystem : public vpnctl::PosixFileSystem {
 public:
  RecordingFileSystem(std::string preferences, std::string keychain, Deeds &deeds)
      : preferences_(std::move(preferences)), keychain_(std::move(keychain)), deeds_(deeds) {}

  vpnctl::Result<vpnctl::FileDescriptor> open(const std::string &path, int flags, mode_t mode) override;
  vpnctl::Status write(int file, std::string_view bytes, const std::string &path) override;
  vpnctl::Status rename(const std::string &from, const std::string &to) override;
  vpnctl::Status link(const std::string &from, const std::string &to) override;
  vpnctl::Status remove(const std::string &path) override;

 private:
  void record(const std::string &path);

  std::string preferences_;
  std::string keychain_;
  Deeds &deeds_;
};

class RecordedLink;

class RecordedHelper {
 public:
  // That are there at first; the link of each does what its name says, see ScriptedLink.h.
  static const std::vector<std::string> &services();
  static const std::string &firstPreferences();

  RecordedHelper();
  RecordedHelper(const RecordedHelper &) = delete;
  RecordedHelper &operator=(const RecordedHelper &) = delete;
  // The helper must have given back every descriptor.
  ~RecordedHelper();

  // Bytes to its socket, with COUNT descriptors that go along; it deals with them at once. A helper that has ended
  // takes nothing.
  void send(std::string_view bytes, int descriptors = 0);
  // While it is deaf, the tool does not read what the helper says.
  void setDeaf(bool deaf);
  // The tool goes. The helper must end then, unless a link may LINGER.
  void leave(bool linger);

  // What has come since the last call.
  std::vector<Received> answers();
  const Deeds &deeds() const { return deeds_; }
  void forgetDeeds() { deeds_ = {}; }
  // It has ended, or is about to: it has closed its end of the socket.
  bool hasEnded() const { return ended_ || closed_; }
  // By another helper, later.
  bool preferencesCanBeRead();
  // The name of a file in the helper's folders that has no business there, or nothing.
  std::string strayFile() const;

 private:
  // Runs it until it waits for something. A helper that never does ends this process.
  void settle();
  bool readAnswers();
  helper::LinkFactory recordedLinks();

  const int firstDescriptor_;
  Deeds deeds_;
  RecordedLink *link_ = nullptr;  // the last, until it goes
  RecordingFileSystem fileSystem_;
  std::optional<helper::PPPLog> log_;
  std::unique_ptr<helper::PreferencesStore> preferences_;
  std::unique_ptr<helper::Keychain> keychain_;
  linux::EventLoop event_;
  std::unique_ptr<helper::testing::ScriptedAuthority> authority_;
  std::unique_ptr<helper::HelperService> service_;
  vpnctl::FileDescriptor socket_;  // the tool's end
  bool deaf_ = false;
  bool ended_ = false;
  bool closed_ = false;
  std::string received_;

  friend class RecordedLink;
};

}  // namespace fuzz
