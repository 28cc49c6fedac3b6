#include "platform/Security.h"

#include <cerrno>
#include <set>
#include <utility>

#include "foundation/ConsoleLog.h"
#include "platform/macos/Authorization.h"
#include "platform/macos/CFObject.h"
#include "platform/macos/PropertyLists.h"

// The keychain functions are deprecated, without any in their place that reach the System keychain's file, which is
// where pppd and the IKE daemon look.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace platform {

using macos::CFObject;

struct SecKeychain {
  CFObject<::SecKeychainRef> object;
};
struct SecKeychainItem {
  CFObject<::SecKeychainItemRef> object;
};
struct SecKeychainSearch {
  CFObject<::SecKeychainSearchRef> object;
  int failures = 0;  // one after the other
};
struct SecTrustedApplication {
  CFObject<::SecTrustedApplicationRef> object;  // none: there is no such program
};
struct SecAccess {
  CFObject<::SecAccessRef> object;
};

namespace {

// What the system answers for a path that leads nowhere: errno values begin there.
constexpr OSStatus kNoSuchFile = 100000 + ENOENT;

// A keychain that cannot be read would be searched for ever.
constexpr int kPatience = 100;

// Items as C has them: a view of what they were made of.
class ItemSet {
 public:
  explicit ItemSet(const std::vector<AuthorizationItem> *items) : there_(items != nullptr) {
    if (items == nullptr) return;
    for (const AuthorizationItem &item : *items)
      items_.push_back({item.name.c_str(), item.valueLength, const_cast<void *>(item.value), item.flags});
    set_.count = static_cast<UInt32>(items_.size());
    set_.items = items_.data();
  }
  ItemSet(const ItemSet &) = delete;
  ItemSet &operator=(const ItemSet &) = delete;

  // Null when there were none, not even no items.
  const ::AuthorizationItemSet *get() const { return there_ ? &set_ : nullptr; }

 private:
  const bool there_;
  std::vector<::AuthorizationItem> items_;
  ::AuthorizationItemSet set_ = {};
};

// The same for attributes; none are an empty list.
class AttributeList {
 public:
  explicit AttributeList(const SecKeychainAttributeList *attributes) {
    if (attributes == nullptr) return;
    for (const SecKeychainAttribute &attribute : *attributes)
      attributes_.push_back({attribute.tag, attribute.length, const_cast<void *>(attribute.data)});
    list_.count = static_cast<UInt32>(attributes_.size());
    list_.attr = attributes_.data();
  }
  AttributeList(const AttributeList &) = delete;
  AttributeList &operator=(const AttributeList &) = delete;

  ::SecKeychainAttributeList *get() { return &list_; }

 private:
  std::vector<::SecKeychainAttribute> attributes_;
  ::SecKeychainAttributeList list_ = {};
};

// The object that CALL gives through a pointer goes into OUTPUT, which stays as it is when the call fails.
template <class Object, class Reference = decltype(Object::object.get()), class Call>
OSStatus give(std::shared_ptr<Object> *output, const Call &call) {
  Reference reference = nullptr;
  const OSStatus status = call(&reference);
  auto object = CFObject<Reference>::owned(reference);
  if (status != errSecSuccess || output == nullptr) return status;
  *output = std::make_shared<Object>();
  (*output)->object = std::move(object);
  return status;
}

// Each item is given the same list: once is enough.
void sayThatThereIsNo(const char *path) {
  static auto *const said = new std::set<std::string>();
  if (said->insert(path).second) vpnctl::NSLog("%s does not exist; the keychain items will not name it.", path);
}

}  // namespace

// ---- Authorization

OSStatus AuthorizationCreate(const AuthorizationRights *rights, const AuthorizationEnvironment *environment,
                             AuthorizationFlags flags, AuthorizationRef *authorization) {
  const ItemSet wanted(rights);
  const ItemSet surroundings(environment);
  ::AuthorizationRef reference = nullptr;
  const OSStatus status = ::AuthorizationCreate(wanted.get(), surroundings.get(), flags, &reference);
  if (status != errAuthorizationSuccess) return status;
  auto created = std::make_shared<Authorization>(reference);
  if (authorization != nullptr) *authorization = std::move(created);
  return errAuthorizationSuccess;
}

OSStatus AuthorizationCopyRights(const AuthorizationRef &authorization, const AuthorizationRights &rights,
                                 const AuthorizationEnvironment *environment, AuthorizationFlags flags,
                                 AuthorizationRights *authorizedRights) {
  if (!authorization) return errAuthorizationInvalidRef;
  const ItemSet wanted(&rights);
  const ItemSet surroundings(environment);
  ::AuthorizationItemSet *granted = nullptr;
  const OSStatus status = ::AuthorizationCopyRights(authorization->reference, wanted.get(), surroundings.get(), flags,
                                                    authorizedRights != nullptr ? &granted : nullptr);
  if (status != errAuthorizationSuccess || granted == nullptr) return status;
  authorizedRights->clear();
  for (UInt32 i = 0; i < granted->count; ++i)
    authorizedRights->push_back({granted->items[i].name, 0, nullptr, granted->items[i].flags});
  ::AuthorizationFreeItemSet(granted);
  return status;
}

// ---- Keychain. To the system no keychain stands for all of the user's: it must never see none.

OSStatus SecKeychainCopyDomainDefault(SecPreferencesDomain domain, SecKeychainRef *keychain) {
  if (keychain == nullptr) return errSecParam;
  return give(keychain, [&](::SecKeychainRef *reference) {
    return ::SecKeychainCopyDomainDefault(static_cast<::SecPreferencesDomain>(domain), reference);
  });
}

OSStatus SecKeychainSearchCreateFromAttributes(const SecKeychainRef &keychain, SecItemClass itemClass,
                                               const SecKeychainAttributeList *attributes,
                                               SecKeychainSearchRef *search) {
  if (!keychain) return errSecInvalidKeychain;
  if (search == nullptr) return errSecParam;
  AttributeList list(attributes);
  return give(search, [&](::SecKeychainSearchRef *reference) {
    return ::SecKeychainSearchCreateFromAttributes(keychain->object.get(), static_cast<::SecItemClass>(itemClass),
                                                   list.get(), reference);
  });
}

// Any failure may have more items behind it, so it is told as it is; but not for ever.
OSStatus SecKeychainSearchCopyNext(const SecKeychainSearchRef &search, SecKeychainItemRef *item) {
  if (!search || item == nullptr) return errSecItemNotFound;
  const OSStatus status = give(item, [&](::SecKeychainItemRef *reference) {
    return ::SecKeychainSearchCopyNext(search->object.get(), reference);
  });
  search->failures = status == errSecSuccess ? 0 : search->failures + 1;
  return search->failures < kPatience ? status : errSecItemNotFound;
}

OSStatus SecKeychainItemDelete(const SecKeychainItemRef &item) {
  return item ? ::SecKeychainItemDelete(item->object.get()) : OSStatus{errSecParam};
}

// The system opens the program there; the tool's list names programs of several versions of the system, and is not to
// fail for that. No path would stand for this program.
OSStatus SecTrustedApplicationCreateFromPath(const char *path, SecTrustedApplicationRef *application) {
  if (path == nullptr || application == nullptr) return errSecParam;
  const OSStatus status = give(application, [&](::SecTrustedApplicationRef *reference) {
    return ::SecTrustedApplicationCreateFromPath(path, reference);
  });
  if (status != kNoSuchFile) return status;
  sayThatThereIsNo(path);
  *application = std::make_shared<SecTrustedApplication>();
  return errSecSuccess;
}

OSStatus SecAccessCreate(const std::string &descriptor,
                         const std::vector<SecTrustedApplicationRef> &trustedApplications, SecAccessRef *access) {
  const auto name = macos::stringOf(descriptor);
  // An empty list trusts nobody; none at all would trust this program.
  const auto list = CFObject<CFMutableArrayRef>::owned(::CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks));
  if (access == nullptr || !name || !list) return errSecParam;
  for (const SecTrustedApplicationRef &application : trustedApplications) {
    if (!application) return errSecParam;
    if (application->object) ::CFArrayAppendValue(list.get(), application->object.get());
  }
  return give(access, [&](::SecAccessRef *reference) { return ::SecAccessCreate(name.get(), list.get(), reference); });
}

OSStatus SecKeychainItemCreateFromContent(SecItemClass itemClass, const SecKeychainAttributeList *attributes,
                                          std::uint32_t length, const void *data, const SecKeychainRef &keychain,
                                          const SecAccessRef &access, SecKeychainItemRef *item) {
  if (!keychain) return errSecInvalidKeychain;
  AttributeList list(attributes);
  return give(item, [&](::SecKeychainItemRef *reference) {
    return ::SecKeychainItemCreateFromContent(static_cast<::SecItemClass>(itemClass), list.get(), length, data,
                                              keychain->object.get(), access ? access->object.get() : nullptr,
                                              reference);
  });
}

}  // namespace platform
