// Puts the two secrets of a network service into the system keychain, where the PPP daemon and the IKE daemon look them
// up by the service's identifier, with an access list of the programs that may read them.
//
// Thread rule: one thread, as the keychain calls it makes; the table of trusted paths is process-wide.

#pragma once

#include <array>
#include <optional>
#include <string>

#include "foundation/Secret.h"
#include "platform/Security.h"

namespace TN {

class TNKeyChain {
 public:
  using Text = std::optional<std::string>;
  using SecretText = std::optional<vpnctl::Secret>;

  // Replaces all items labelled "Corvanelle", whoever wrote them, by the shared secret (SERVICE_ID + ".SS", no account)
  // and the PPP password (SERVICE_ID, ACCOUNT). Failures leave the keychain as the last call that worked left it; the
  // connection attempt goes on and shows whether it matters.
  static void storePasswordsForService(const Text &serviceID, const SecretText &secret, const Text &account,
                                       const SecretText &password);

  // One new generic password; empty when it could not be made. An absent text is one of no bytes.
  static platform::SecKeychainItemRef addPassword(const platform::SecKeychainRef &keychain, const Text &service,
                                                  const Text &account, const SecretText &password, const Text &label,
                                                  const Text &description);

  // Deletes every generic password that bears the label.
  static void removePasswordsFromKeychain(const platform::SecKeychainRef &keychain, const Text &label);

  // 10.9 or later, major and minor each looked at for itself: 11.2 is not.
  static bool isMavericksOrNewer();

  // The access object that every item gets. A failure is a failed assertion.
  static platform::SecAccessRef setupACL();

  // The programs of the access list in their order. setupACL rewrites the first two for newer systems, for good.
  static std::array<const char *, 5> &trustedApplicationPaths();
};

}  // namespace TN
