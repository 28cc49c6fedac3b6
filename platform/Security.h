// The security part of the platform API: authorization and the keychain's generic passwords, under the names that macOS
// gives them.
//
// Ownership as in SystemConfiguration.h. Results are OSStatus codes; outputs are untouched on failure. Thread rule: one
// thread. Every keychain call blocks for a round trip to the helper and ends with errSecNotAvailable when the helper is
// gone.

#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace platform {

using OSStatus = std::int32_t;

// ---- Authorization
// ----------------------------------------------------------------------------------------------------------

using AuthorizationRef = std::shared_ptr<struct Authorization>;
using AuthorizationFlags = std::uint32_t;

enum : OSStatus {
  errAuthorizationSuccess = 0,
  errAuthorizationInvalidSet = -60001,
  errAuthorizationInvalidRef = -60002,
  errAuthorizationDenied = -60005,
  errAuthorizationCanceled = -60006,
  errAuthorizationInteractionNotAllowed = -60007,
  errAuthorizationInternal = -60008,
  errAuthorizationInvalidFlags = -60011,
  errAuthorizationToolExecuteFailure = -60031,
};

enum : AuthorizationFlags {
  kAuthorizationFlagDefaults = 0,
  kAuthorizationFlagInteractionAllowed = 1,
  kAuthorizationFlagExtendRights = 2,
  kAuthorizationFlagPartialRights = 4,
  kAuthorizationFlagDestroyRights = 8,
  kAuthorizationFlagPreAuthorize = 16,
};

struct AuthorizationItem {
  std::string name;
  std::size_t valueLength = 0;
  const void *value = nullptr;
  std::uint32_t flags = 0;
};
using AuthorizationRights = std::vector<AuthorizationItem>;
using AuthorizationEnvironment = std::vector<AuthorizationItem>;

// A new reference that carries no right yet. RIGHTS and ENVIRONMENT may be null. Does not block.
OSStatus AuthorizationCreate(const AuthorizationRights *rights, const AuthorizationEnvironment *environment,
                             AuthorizationFlags flags, AuthorizationRef *authorization);
// Obtains RIGHTS ("system.preferences" is the one there is) for the reference. May block on an administrator's password
// dialog when interaction is allowed. AUTHORIZED_RIGHTS, if not null, receives what was granted, whose
// values are not to be used.
OSStatus AuthorizationCopyRights(const AuthorizationRef &authorization, const AuthorizationRights &rights,
                                 const AuthorizationEnvironment *environment, AuthorizationFlags flags,
                                 AuthorizationRights *authorizedRights);

// ---- Keychain
// ---------------------------------------------------------------------------------------------------------------

enum : OSStatus {
  errSecSuccess = 0,
  errSecParam = -50,
  errSecWrPerm = -61,
  errSecNotAvailable = -25291,
  errSecAuthFailed = -25293,
  errSecNoSuchKeychain = -25294,
  errSecInvalidKeychain = -25295,
  errSecDuplicateItem = -25299,
  errSecItemNotFound = -25300,
  errSecNoDefaultKeychain = -25307,
  errSecInteractionNotAllowed = -25308,
};

// A four-character code, as "genp" is.
constexpr std::uint32_t fourCharCode(const char (&code)[5]) {
  std::uint32_t value = 0;
  for (int i = 0; i < 4; ++i) value = value << 8 | static_cast<unsigned char>(code[i]);
  return value;
}

using SecItemClass = std::uint32_t;
inline constexpr SecItemClass kSecGenericPasswordItemClass = fourCharCode("genp");

using SecKeychainAttrType = std::uint32_t;
inline constexpr SecKeychainAttrType kSecLabelItemAttr = fourCharCode("labl");
inline constexpr SecKeychainAttrType kSecAccountItemAttr = fourCharCode("acct");
inline constexpr SecKeychainAttrType kSecServiceItemAttr = fourCharCode("svce");
inline constexpr SecKeychainAttrType kSecDescriptionItemAttr = fourCharCode("desc");

struct SecKeychainAttribute {
  SecKeychainAttrType tag = 0;
  std::uint32_t length = 0;  // bytes of data that count
  const void *data = nullptr;
};
using SecKeychainAttributeList = std::vector<SecKeychainAttribute>;

using SecKeychainRef = std::shared_ptr<struct SecKeychain>;
using SecKeychainItemRef = std::shared_ptr<struct SecKeychainItem>;
using SecKeychainSearchRef = std::shared_ptr<struct SecKeychainSearch>;
using SecTrustedApplicationRef = std::shared_ptr<struct SecTrustedApplication>;
using SecAccessRef = std::shared_ptr<struct SecAccess>;

enum SecPreferencesDomain { kSecPreferencesDomainUser = 0, kSecPreferencesDomainSystem = 1 };

// The default keychain of a domain. Only the system's exists here (errSecNoDefaultKeychain for another).
OSStatus SecKeychainCopyDomainDefault(SecPreferencesDomain domain, SecKeychainRef *keychain);

// A search walks a snapshot of the items that match all ATTRIBUTES, taken when it is made: an item that cannot be
// deleted does not come again.
OSStatus SecKeychainSearchCreateFromAttributes(const SecKeychainRef &keychain, SecItemClass itemClass,
                                               const SecKeychainAttributeList *attributes,
                                               SecKeychainSearchRef *search);
// The next item. errSecItemNotFound when there is none to give. Any other failure may have more items behind it, but
// not without end: who asks until there is none comes to that.
OSStatus SecKeychainSearchCopyNext(const SecKeychainSearchRef &search, SecKeychainItemRef *item);
OSStatus SecKeychainItemDelete(const SecKeychainItemRef &item);

// PATH may name a program that does not exist (yet). Where the system does not take that, the list will be without it,
// and a line on the console says so.
OSStatus SecTrustedApplicationCreateFromPath(const char *path, SecTrustedApplicationRef *application);
OSStatus SecAccessCreate(const std::string &descriptor,
                         const std::vector<SecTrustedApplicationRef> &trustedApplications, SecAccessRef *access);

// A new item. Items are unique by (account, service): errSecDuplicateItem. LENGTH bytes at DATA are the secret.
OSStatus SecKeychainItemCreateFromContent(SecItemClass itemClass, const SecKeychainAttributeList *attributes,
                                          std::uint32_t length, const void *data, const SecKeychainRef &keychain,
                                          const SecAccessRef &access, SecKeychainItemRef *item);

}  // namespace platform
