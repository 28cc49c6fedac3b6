// The keychain's calls, each a round trip to the helper.

#include <utility>

#include "foundation/Secret.h"
#include "platform/Security.h"
#include "platform/linux/HelperConnection.h"

namespace platform {

struct SecKeychain {
  std::shared_ptr<HelperConnection> helper;
};

struct SecKeychainItem {
  std::shared_ptr<HelperConnection> helper;
  std::string identifier;
};

struct SecKeychainSearch {
  std::shared_ptr<HelperConnection> helper;
  std::vector<std::string> items;
  std::size_t next = 0;
};

struct SecTrustedApplication {
  std::string path;
};

struct SecAccess {
  std::string description;
  std::vector<std::string> trustedPaths;
};

namespace {

// None for a list that names an attribute twice.
std::optional<wire::Attributes> copyAttributes(const SecKeychainAttributeList *attributes) {
  wire::Attributes copies;
  if (attributes == nullptr) return copies;
  for (const auto &attribute : *attributes) {
    const std::string_view bytes(static_cast<const char *>(attribute.data),
                                 attribute.data != nullptr ? attribute.length : 0);
    if (!copies.emplace(attribute.tag, bytes).second) return {};
  }
  return copies;
}

}  // namespace

OSStatus SecKeychainCopyDomainDefault(SecPreferencesDomain domain, SecKeychainRef *keychain) {
  if (keychain == nullptr) return errSecParam;
  if (domain != kSecPreferencesDomainSystem) return errSecNoDefaultKeychain;
  auto helper = HelperConnection::current();
  if (!helper) return errSecNotAvailable;
  *keychain = std::make_shared<SecKeychain>(SecKeychain{std::move(helper)});
  return errSecSuccess;
}

OSStatus SecKeychainSearchCreateFromAttributes(const SecKeychainRef &keychain, SecItemClass itemClass,
                                               const SecKeychainAttributeList *attributes,
                                               SecKeychainSearchRef *search) {
  if (!keychain || search == nullptr || itemClass != kSecGenericPasswordItemClass) return errSecParam;
  const auto wanted = copyAttributes(attributes);
  if (!wanted) return errSecParam;
  auto found = keychain->helper->findKeychainItems(*wanted);
  if (!found) return errSecNotAvailable;
  if (found->status != errSecSuccess) return found->status;
  *search = std::make_shared<SecKeychainSearch>(SecKeychainSearch{keychain->helper, std::move(found->items), 0});
  return errSecSuccess;
}

OSStatus SecKeychainSearchCopyNext(const SecKeychainSearchRef &search, SecKeychainItemRef *item) {
  if (!search || item == nullptr || search->next == search->items.size()) return errSecItemNotFound;
  *item = std::make_shared<SecKeychainItem>(SecKeychainItem{search->helper, search->items[search->next++]});
  return errSecSuccess;
}

OSStatus SecKeychainItemDelete(const SecKeychainItemRef &item) {
  if (!item) return errSecParam;
  return item->helper->deleteKeychainItem(item->identifier).value_or(errSecNotAvailable);
}

OSStatus SecTrustedApplicationCreateFromPath(const char *path, SecTrustedApplicationRef *application) {
  // A null path stands for the calling program elsewhere; here nothing needs that.
  if (path == nullptr || application == nullptr) return errSecParam;
  *application = std::make_shared<SecTrustedApplication>(SecTrustedApplication{path});
  return errSecSuccess;
}

OSStatus SecAccessCreate(const std::string &descriptor,
                         const std::vector<SecTrustedApplicationRef> &trustedApplications, SecAccessRef *access) {
  if (access == nullptr) return errSecParam;
  SecAccess created{descriptor, {}};
  for (const auto &application : trustedApplications) {
    if (!application) return errSecParam;
    created.trustedPaths.push_back(application->path);
  }
  *access = std::make_shared<SecAccess>(std::move(created));
  return errSecSuccess;
}

OSStatus SecKeychainItemCreateFromContent(SecItemClass itemClass, const SecKeychainAttributeList *attributes,
                                          std::uint32_t length, const void *data, const SecKeychainRef &keychain,
                                          const SecAccessRef &access, SecKeychainItemRef *item) {
  if (itemClass != kSecGenericPasswordItemClass || !keychain || (data == nullptr && length > 0)) return errSecParam;
  const auto copies = copyAttributes(attributes);
  if (!copies) return errSecParam;
  const vpnctl::Secret secret(std::string_view(static_cast<const char *>(data), length));
  auto created = keychain->helper->addKeychainItem(*copies, secret, access ? access->description : "",
                                                   access ? access->trustedPaths : std::vector<std::string>());
  if (!created) return errSecNotAvailable;
  if (created->status != errSecSuccess) return created->status;
  if (item != nullptr)
    *item = std::make_shared<SecKeychainItem>(SecKeychainItem{keychain->helper, std::move(created->item)});
  return errSecSuccess;
}

}  // namespace platform
