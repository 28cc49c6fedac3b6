// The system keychain: generic passwords, sealed under the system's key, each with the list of programs that may have
// it, and with what it may be used for.
//
// One property list, read and replaced whole under its lock; the links' source of secrets. Every failure is an OSStatus
// code in the domain "OSStatus"; what the user can mend is also told in the PPP log. The access list keeps honest
// programs apart; it does not bind root. Thread rule: one thread.

#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "foundation/Result.h"
#include "foundation/Secret.h"
#include "helper/common/PPPLog.h"
#include "helper/common/Peer.h"
#include "helper/common/SecretSource.h"
#include "helper/store/KeychainItem.h"
#include "helper/store/SystemKey.h"
#include "linux/AtomicFile.h"

namespace helper {

class Keychain : public SecretSource {
 public:
  static constexpr char kFolder[] = "/var/lib/vpnctl";
  static constexpr std::size_t kMaximumSecret = std::size_t{64} << 10;     // bytes
  static constexpr std::size_t kMaximumAttribute = std::size_t{64} << 10;  // bytes

  // An access list may name a role; these are the programs that play it.
  using Roles = std::map<std::string, std::vector<std::string>>;

  // Another helper holds the lock for one write, but a slow disk may take its time for that, and the lock goes to
  // whoever is fastest. Half of what a caller waits for an answer.
  static constexpr std::chrono::milliseconds kLockPatience{5000};

  // FOLDER (no trailing slash) holds "System.keychain" and "SystemKey"; it is made (0700) when something is first
  // written. FILE_SYSTEM and LOG outlive this.
  Keychain(const std::string &folder, vpnctl::FileSystem &fileSystem, PPPLog &log, Roles roles = {},
           std::chrono::milliseconds lockPatience = kLockPatience);

  // A new item; its identifier. Missing account and service are empty, a missing label is the service. Without a USE
  // nobody is given its secret. errSecDuplicateItem when an item has that account and service, errSecParam when
  // something is too large or no plain text.
  vpnctl::Result<std::string> add(const KeychainItem::Attributes &attributes, const vpnctl::Secret &secret,
                                  const KeychainItem::Access &access, const std::optional<SecretUse> &use);
  // The identifiers of the items that have all of ATTRIBUTES, in the order of the file.
  vpnctl::Result<std::vector<std::string>> find(const KeychainItem::Attributes &attributes) const;
  // errSecItemNotFound when there is none.
  vpnctl::Status remove(const std::string &identifier);

  // errSecItemNotFound without an item for SERVICE; errSecAuthFailed when no such item trusts PEER, when it was stored
  // for another use than USE, or when it does not open. What was added here stays known here: another run replaces the
  // items of all, also those of a link that is just coming up or has to authenticate itself again.
  vpnctl::Result<vpnctl::Secret> secretForService(const std::string &service, const SecretUse &use,
                                                  const Peer &peer) override;

 private:
  using Items = std::map<std::string, KeychainItem>;

  vpnctl::Result<Items> load() const;
  vpnctl::Status store(const Items &items);
  vpnctl::Result<linux::AtomicFile::Lock> lock() const;
  vpnctl::Result<SystemKey> keyFor(const Items &items);
  bool trusts(const KeychainItem &item, const Peer &peer) const;
  vpnctl::Result<vpnctl::Secret> open(const KeychainItem &item, const SecretUse &use) const;
  vpnctl::Error report(std::int32_t code, const vpnctl::Error &error) const;

  linux::AtomicFile file_;
  std::string keyPath_;
  vpnctl::FileSystem &fileSystem_;
  PPPLog &log_;
  Roles roles_;
  const std::chrono::milliseconds lockPatience_;
  Items own_;  // added here and not removed here; sealed, as they are in the file
};

}  // namespace helper
