// What one link has done to the machine, written down before it is done, in a folder of the link's own under
// /run/vpnctl. The folder is locked while its helper lives; what a dead helper left can be found, locked and undone by
// the next. What a power failure leaves standing, a replaced file, goes into a second, lasting journal on the disk.
//
// Usual sequence: create(); note(entry) before each change; undo in reverse order, forget(index) after each; remove().
// Or: abandoned() gives the journals of the dead. Thread rule: one thread. Blocks only for the file system (memory),
// and a moment for others who do the same.

#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"
#include "foundation/Value.h"
#include "helper/common/IPv4Address.h"
#include "helper/journal/IPSecJournal.h"
#include "helper/journal/LinkNote.h"
#include "helper/journal/PolicyRule.h"
#include "linux/FolderLock.h"
#include "linux/Process.h"

namespace helper {

// Routing rules that we added, in this order.
struct AddedRules {
  std::vector<PolicyRule> rules;
  bool operator==(const AddedRules &) const = default;
};

// A routing table of our own, with routes to these networks, and one that refuses IPv6 perhaps.
struct FilledTable {
  std::uint32_t table = 0;
  std::vector<IPv4Network> networks;
  bool operator==(const FilledTable &) const = default;
};

// Name servers given to the resolvconf program under a key.
struct ResolvconfRecord {
  std::string program;
  std::string key;
  bool operator==(const ResolvconfRecord &) const = default;
};

// A file that we replaced. What was there: nothing, a symbolic link, or bytes.
struct ReplacedFile {
  std::string path;
  std::optional<std::string> linkTarget;
  std::optional<std::string> bytes;
  mode_t mode = 0644;
  uid_t owner = 0;
  gid_t group = 0;
  std::string replacement;  // what we put there: if it is no longer that, somebody else has taken over
  bool takenOver = false;   // somebody else has, and the user has been told
  bool operator==(const ReplacedFile &) const = default;
};

using JournalEntry =
    std::variant<StartedProcess, AddedRules, FilledTable, ResolvconfRecord, ReplacedFile, ProtectedFlow>;

class Journal : public IPSecJournal {
 public:
  static constexpr char kBase[] = "/run/vpnctl";
  static constexpr char kLastingBase[] = "/var/lib/vpnctl/replaced";

  // What another link has noted.
  struct Other {
    std::uint32_t number = 0;
    bool alive = false;  // so is its helper
    std::vector<JournalEntry> entries;
  };

  // A link's folder as whoever asks which links there are finds it.
  struct Sight {
    std::string folder;
    std::uint32_t number = 0;
    bool alive = false;         // so is its helper
    vpnctl::Status readable{};  // an error where the journal makes no sense
    std::vector<JournalEntry> entries{};
    std::optional<LinkNote> note{};  // none of an older helper's link, or of one that begins just now
  };

  // Others hold the lock of all journals for one change of a file; who still has it by then has been stopped, or his
  // disk has.
  static constexpr std::chrono::milliseconds kLockPatience{2000};

  // A new folder (0700) below BASE, locked. EWOULDBLOCK, as from all that need the lock of all journals, when another
  // does not let that go.
  static vpnctl::Result<Journal> create(const std::string &base = kBase,
                                        std::chrono::milliseconds lockPatience = kLockPatience);
  // The journals below BASE whose helpers are dead, each locked now. One that makes no sense, of a newer version
  // perhaps, is put aside as BASE/broken.XXXXXX for people to look at; one that we have no means to read now is left to
  // the next helper. ERRORS tells of both.
  static std::vector<Journal> abandoned(const std::string &base, std::vector<vpnctl::Error> &errors,
                                        std::chrono::milliseconds lockPatience = kLockPatience);
  // All that are below BASE, by their numbers, as they are; none where there is no BASE. EACCES for whoever is not
  // root.
  static vpnctl::Result<std::vector<Sight>> look(const std::string &base = kBase,
                                                 std::chrono::milliseconds lockPatience = kLockPatience);
  // How many there are below BASE, the abandoned ones too.
  static std::size_t count(const std::string &base = kBase);

  // The link's lasting journal, made below BASE when it is first asked for; this one owns it. What is noted there is on
  // the disk when note() returns.
  vpnctl::Result<Journal *> openLasting(const std::string &base = kLastingBase);
  // It; null when nobody has asked for it.
  Journal *lasting() const { return lasting_.get(); }

  Journal(Journal &&) = default;
  Journal &operator=(Journal &&) = default;

  const std::string &folder() const { return folder_; }
  // Of the links that are there at the same time, the newest has the highest.
  std::uint32_t number() const;
  // Held while the caller looks at what others() have noted, and acts on it: meanwhile they wait. Blocks while another
  // does that, as long as there is patience.
  vpnctl::Result<linux::FolderLock> lockOthersOut() const;
  // Those that cannot be read are left out.
  std::vector<Other> others() const;
  const std::vector<JournalEntry> &entries() const { return entries_; }
  // Writes down what the link is, in place of what was written before. Nothing depends on it.
  vpnctl::Status describe(const LinkNote &note);
  // Writes the entry down; when that fails, the change must not be made.
  vpnctl::Status note(JournalEntry entry);
  // The newest entry's change has been undone (or was never made).
  vpnctl::Status forgetLast();
  // So has that of the entry at INDEX.
  vpnctl::Status forget(std::size_t index);
  // More is known of the entry at INDEX.
  vpnctl::Status replace(std::size_t index, JournalEntry entry);
  vpnctl::Status noteFlow(const ProtectedFlow &entry) override { return note(entry); }
  vpnctl::Status noteProcess(const StartedProcess &entry) override { return note(entry); }
  void forgetFlow(const ProtectedFlow &entry) override { forgetEntry(entry); }
  void forgetProcess(const StartedProcess &entry) override { forgetEntry(entry); }
  // Removes the folder and everything in it.
  void remove();

 private:
  Journal(std::string folder, vpnctl::FileDescriptor lock, std::chrono::milliseconds lockPatience)
      : folder_(std::move(folder)), lock_(std::move(lock)), lockPatience_(lockPatience) {}
  // NUMBER 0: the next one.
  static vpnctl::Result<Journal> make(const std::string &base, std::uint32_t number,
                                      std::chrono::milliseconds lockPatience);
  void forgetEntry(const JournalEntry &entry);
  vpnctl::Status write() const;
  vpnctl::Status read();

  std::string folder_;
  vpnctl::FileDescriptor lock_;
  std::chrono::milliseconds lockPatience_;
  std::vector<JournalEntry> entries_;
  bool durable_ = false;
  std::unique_ptr<Journal> lasting_;
};

// The form in the file, and back.
vpnctl::Value journalValue(const std::vector<JournalEntry> &entries);
vpnctl::Result<std::vector<JournalEntry>> journalEntries(const vpnctl::Value &value);

}  // namespace helper
