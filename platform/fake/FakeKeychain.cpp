#include <algorithm>

#include "platform/Security.h"
#include "platform/fake/FakePlatform.h"
#include "platform/fake/FakeText.h"

namespace platform {

using fake::FakePlatform;

struct SecKeychain {};

struct SecTrustedApplication {
  std::string path;
};

struct SecAccess {
  std::string descriptor;
  std::vector<std::string> paths;
};

struct SecKeychainItem {
  std::string account, service;
};

struct SecKeychainSearch {
  std::vector<SecKeychainItemRef> left;
};

namespace {

std::string value(const SecKeychainAttributeList &attributes, SecKeychainAttrType tag) {
  for (const SecKeychainAttribute &attribute : attributes)
    if (attribute.tag == tag) return {static_cast<const char *>(attribute.data), attribute.length};
  return {};
}

bool has(const SecKeychainAttributeList &attributes, SecKeychainAttrType tag, const std::string &expected) {
  const bool asked = std::any_of(attributes.begin(), attributes.end(), [tag](const auto &a) { return a.tag == tag; });
  return !asked || value(attributes, tag) == expected;
}

auto find(const std::string &account, const std::string &service) {
  auto &items = FakePlatform::instance().items;
  return std::find_if(items.begin(), items.end(),
                      [&](const auto &item) { return item.account == account && item.service == service; });
}

}  // namespace

OSStatus SecKeychainCopyDomainDefault(SecPreferencesDomain domain, SecKeychainRef *keychain) {
  if (const auto failure = FakePlatform::instance().enter("SecKeychainCopyDomainDefault", std::to_string(domain)))
    return *failure;
  *keychain = std::make_shared<SecKeychain>();
  return errSecSuccess;
}

OSStatus SecKeychainSearchCreateFromAttributes(const SecKeychainRef &keychain, SecItemClass itemClass,
                                               const SecKeychainAttributeList *attributes,
                                               SecKeychainSearchRef *search) {
  FakePlatform &platform = FakePlatform::instance();
  const auto failure = platform.enter("SecKeychainSearchCreateFromAttributes",
                                      fake::reference(keychain, "keychain") + ", " + fake::fourCharacters(itemClass) +
                                          ", " + fake::oneLine(attributes));
  if (failure) return *failure;
  auto found = std::make_shared<SecKeychainSearch>();
  for (const fake::KeychainItem &item : platform.items)
    if (has(*attributes, kSecLabelItemAttr, item.label) && has(*attributes, kSecAccountItemAttr, item.account) &&
        has(*attributes, kSecServiceItemAttr, item.service))
      found->left.push_back(std::make_shared<SecKeychainItem>(SecKeychainItem{item.account, item.service}));
  *search = std::move(found);
  return errSecSuccess;
}

OSStatus SecKeychainSearchCopyNext(const SecKeychainSearchRef &search, SecKeychainItemRef *item) {
  const auto failure = FakePlatform::instance().enter("SecKeychainSearchCopyNext", fake::reference(search, "search"));
  if (failure) return *failure;
  if (!search || search->left.empty()) return errSecItemNotFound;
  *item = search->left.front();
  search->left.erase(search->left.begin());
  return errSecSuccess;
}

OSStatus SecKeychainItemDelete(const SecKeychainItemRef &item) {
  FakePlatform &platform = FakePlatform::instance();
  const std::string name = item ? "item " + fake::quoted(std::string_view(item->service)) : "null";
  if (const auto failure = platform.enter("SecKeychainItemDelete", name)) return *failure;
  if (!item) return errSecParam;
  const auto stored = find(item->account, item->service);
  if (stored == platform.items.end()) return errSecItemNotFound;
  platform.items.erase(stored);
  return errSecSuccess;
}

OSStatus SecTrustedApplicationCreateFromPath(const char *path, SecTrustedApplicationRef *application) {
  const auto failure =
      FakePlatform::instance().enter("SecTrustedApplicationCreateFromPath", fake::quoted(std::string_view(path)));
  if (failure) return *failure;
  *application = std::make_shared<SecTrustedApplication>(SecTrustedApplication{path});
  return errSecSuccess;
}

OSStatus SecAccessCreate(const std::string &descriptor,
                         const std::vector<SecTrustedApplicationRef> &trustedApplications, SecAccessRef *access) {
  const auto failure = FakePlatform::instance().enter(
      "SecAccessCreate",
      fake::quoted(std::string_view(descriptor)) + ", " + std::to_string(trustedApplications.size()) + " applications");
  if (failure) return *failure;
  auto made = std::make_shared<SecAccess>();
  made->descriptor = descriptor;
  for (const SecTrustedApplicationRef &application : trustedApplications) made->paths.push_back(application->path);
  *access = std::move(made);
  return errSecSuccess;
}

OSStatus SecKeychainItemCreateFromContent(SecItemClass itemClass, const SecKeychainAttributeList *attributes,
                                          std::uint32_t length, const void *data, const SecKeychainRef &keychain,
                                          const SecAccessRef &access, SecKeychainItemRef *item) {
  FakePlatform &platform = FakePlatform::instance();
  const std::string secret(static_cast<const char *>(data), length);
  const auto failure =
      platform.enter("SecKeychainItemCreateFromContent",
                     fake::fourCharacters(itemClass) + ", " + fake::oneLine(attributes) + ", " +
                         std::to_string(length) + ", " + fake::quoted(std::string_view(secret)) + ", " +
                         fake::reference(keychain, "keychain") + ", " + fake::reference(access, "access"));
  if (failure) return *failure;
  fake::KeychainItem made;
  made.label = value(*attributes, kSecLabelItemAttr);
  made.account = value(*attributes, kSecAccountItemAttr);
  made.service = value(*attributes, kSecServiceItemAttr);
  made.description = value(*attributes, kSecDescriptionItemAttr);
  made.secret = secret;
  if (access) {
    made.accessDescriptor = access->descriptor;
    made.trustedPaths = access->paths;
  }
  if (find(made.account, made.service) != platform.items.end()) return errSecDuplicateItem;
  platform.items.push_back(made);
  *item = std::make_shared<SecKeychainItem>(SecKeychainItem{made.account, made.service});
  return errSecSuccess;
}

}  // namespace platform
