// The network preferences on the disk: one property list, read and replaced whole.
//
// Usual sequence: read(), the client changes its copy, commit() with the signature that came with it. Every failure is
// an SCError code in the domain "SCError" with a sentence part; what the user can mend is also told in the PPP log.
// Thread rule: one thread.

#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "foundation/PropertyList.h"
#include "foundation/Result.h"
#include "foundation/Value.h"
#include "helper/common/PPPLog.h"
#include "linux/AtomicFile.h"

namespace helper {

class PreferencesStore {
 public:
  static constexpr char kPath[] = "/etc/vpnctl/preferences.plist";
  static constexpr std::size_t kMaximumSize = std::size_t{4} << 20;  // bytes
  // Of what is read and of what is written: what has been committed can be read again.
  static constexpr vpnctl::PropertyListLimits kLimits{.bytes = kMaximumSize, .elements = std::size_t{1} << 17};

  struct Contents {
    std::string propertyList;  // the file's bytes; none when there is no file: a fresh system
    std::string signature;     // opaque; it changes whenever the file does
  };

  // Another helper holds the lock for one write, but a slow disk may take its time for that, and the lock goes to
  // whoever is fastest. Half of what a caller waits for an answer.
  static constexpr std::chrono::milliseconds kLockPatience{5000};

  // FILE_SYSTEM and LOG outlive this.
  PreferencesStore(std::string path, vpnctl::FileSystem &fileSystem, PPPLog &log,
                   std::chrono::milliseconds lockPatience = kLockPatience);

  // The file, if it can be read in full. kSCStatusAccessError when it may not be read or trusted, kSCStatusFailed when
  // it is damaged.
  vpnctl::Result<Contents> read() const;
  // The same as a value; a null one when there is no file.
  vpnctl::Result<vpnctl::Value> readValue() const;
  // Likewise, for starting SERVICE. Where another run has replaced a service that was committed here, what was
  // committed then: two runs that begin at the same moment do not take each other's.
  vpnctl::Result<vpnctl::Value> readValueWith(const std::string &service) const;

  // The service whose password or shared secret is the keychain's ITEM, by its service attribute: of what was committed
  // here last, which nobody else can have changed meanwhile, else of the file. Null when there is none, or several.
  vpnctl::Value serviceNaming(const std::string &item) const;

  // Replaces the file, if it still has the signature EXPECTED (kSCStatusStale otherwise; an empty one is not compared),
  // and gives the new signature. kSCStatusPrefsBusy when another does not let the lock go,
  // kSCStatusInvalidArgument when PROPERTY_LIST is not what network preferences look like, or holds more than read()
  // would take. A damaged file is never replaced.
  vpnctl::Result<std::string> commit(std::string_view propertyList, std::string_view expected);

 private:
  struct Parsed {
    Contents contents;
    vpnctl::Value value;
  };

  vpnctl::Result<Parsed> readParsed() const;
  vpnctl::Error report(std::int32_t code, const vpnctl::Error &error) const;

  linux::AtomicFile file_;
  PPPLog &log_;
  const std::chrono::milliseconds lockPatience_;
  vpnctl::Value committed_;  // the last
};

}  // namespace helper
