#include <Security/Security.h>

#include <atomic>
#include <cstring>

#include "tests/platform/macos/frameworks/Authorizations.h"
#include "tests/platform/macos/frameworks/Behind.h"
#include "tests/platform/macos/frameworks/Frameworks.h"
#include "tests/platform/macos/frameworks/Objects.h"
#include "tests/platform/macos/frameworks/PropertyLists.h"

namespace frameworks {
namespace {

std::atomic<int> authorizations = 0;

// No CoreFoundation objects: whoever counts them as such is wrong.
struct Authorization : Object {
  explicit Authorization(behind::AuthorizationRef theirs) : it(std::move(theirs)) { ++authorizations; }
  ~Authorization() override { --authorizations; }
  bool isCounted() const override { return false; }
  std::string kind() const override { return "authorization"; }
  const behind::AuthorizationRef it;
};

struct ItemSet : Object {
  explicit ItemSet(const behind::AuthorizationRights &rights) {
    ++authorizations;
    for (const behind::AuthorizationItem &right : rights) {
      names.push_back(std::make_unique<std::string>(right.name));
      items.push_back({names.back()->c_str(), 0, nullptr, right.flags});
    }
    set = {static_cast<UInt32>(items.size()), items.data()};
  }
  ~ItemSet() override { --authorizations; }
  bool isCounted() const override { return false; }
  std::string kind() const override { return "set of rights"; }

  std::vector<std::unique_ptr<std::string>> names;
  std::vector<AuthorizationItem> items;
  AuthorizationItemSet set = {};
};
ItemSet *grantedLast = nullptr;

template <class Theirs>
struct Wrapped : Object {
  Wrapped(Theirs theirs, const char *name) : it(std::move(theirs)), kind_(name) {}
  std::string kind() const override { return kind_; }
  const Theirs it;

 private:
  const char *const kind_;
};

using Keychain = Wrapped<behind::SecKeychainRef>;
using Item = Wrapped<behind::SecKeychainItemRef>;
using Search = Wrapped<behind::SecKeychainSearchRef>;
using TrustedApplication = Wrapped<behind::SecTrustedApplicationRef>;
using Access = Wrapped<behind::SecAccessRef>;

// Made into the other kind of list; none is none.
std::optional<std::vector<behind::AuthorizationItem>> itemsIn(const AuthorizationItemSet *set) {
  if (set == nullptr) return std::nullopt;
  std::vector<behind::AuthorizationItem> items;
  for (UInt32 i = 0; i < set->count; ++i)
    items.push_back({set->items[i].name, set->items[i].valueLength, set->items[i].value, set->items[i].flags});
  return items;
}

template <class List>
const List *pointer(const std::optional<List> &list) {
  return list ? &*list : nullptr;
}

behind::SecKeychainAttributeList attributesIn(const SecKeychainAttributeList *list) {
  behind::SecKeychainAttributeList attributes;
  for (UInt32 i = 0; i < list->count; ++i)
    attributes.push_back({list->attr[i].tag, list->attr[i].length, list->attr[i].data});
  return attributes;
}

const behind::SecKeychainRef &keychainAt(const void *reference) {
  if (reference == nullptr) misuse("no keychain stands for the user's");
  return as<Keychain>(reference).it;
}

template <class Kind, class Reference, class Theirs>
OSStatus give(OSStatus status, Theirs theirs, Reference *reference, const char *kind) {
  if (status == behind::errSecSuccess && reference != nullptr)
    *reference = make<Reference, Kind>(std::move(theirs), kind);
  return status;
}

}  // namespace

behind::AuthorizationRef authorizationAt(AuthorizationRef reference) {
  return reference != nullptr ? as<Authorization>(reference).it : nullptr;
}

int authorizationsLeft() { return authorizations; }

}  // namespace frameworks

using namespace frameworks;

extern "C" {

OSStatus AuthorizationCreate(const AuthorizationRights *rights, const AuthorizationEnvironment *environment,
                             AuthorizationFlags flags, AuthorizationRef *authorization) {
  const auto wanted = itemsIn(rights);
  const auto surroundings = itemsIn(environment);
  behind::AuthorizationRef theirs;
  const OSStatus status = behind::AuthorizationCreate(pointer(wanted), pointer(surroundings), flags, &theirs);
  if (status == behind::errAuthorizationSuccess)
    *authorization = make<AuthorizationRef, Authorization>(std::move(theirs));
  return status;
}

OSStatus AuthorizationCopyRights(AuthorizationRef authorization, const AuthorizationRights *rights,
                                 const AuthorizationEnvironment *environment, AuthorizationFlags flags,
                                 AuthorizationRights **authorizedRights) {
  const auto surroundings = itemsIn(environment);
  behind::AuthorizationRights granted;
  const OSStatus status =
      behind::AuthorizationCopyRights(authorizationAt(authorization), *itemsIn(rights), pointer(surroundings), flags,
                                      authorizedRights != nullptr ? &granted : nullptr);
  if (status != behind::errAuthorizationSuccess || authorizedRights == nullptr) return status;
  auto set = std::make_unique<ItemSet>(granted);
  grantedLast = set.get();
  *authorizedRights = &set->set;
  add(std::move(set));
  return status;
}

OSStatus AuthorizationFree(AuthorizationRef authorization, AuthorizationFlags flags) {
  as<Authorization>(authorization);
  if (flags != kAuthorizationFlagDefaults) misuse("an authorization whose rights are taken from everybody");
  release(authorization);
  return behind::errAuthorizationSuccess;
}

OSStatus AuthorizationFreeItemSet(AuthorizationItemSet *set) {
  if (grantedLast == nullptr || set != &grantedLast->set) misuse("a set of rights that is none, or is freed twice");
  release(std::exchange(grantedLast, nullptr));
  return behind::errAuthorizationSuccess;
}

OSStatus SecKeychainCopyDomainDefault(SecPreferencesDomain domain, SecKeychainRef *keychain) {
  behind::SecKeychainRef theirs;
  const OSStatus status =
      behind::SecKeychainCopyDomainDefault(static_cast<behind::SecPreferencesDomain>(domain), &theirs);
  return give<Keychain>(status, theirs, keychain, "SecKeychain");
}

OSStatus SecKeychainSearchCreateFromAttributes(CFTypeRef keychain, SecItemClass itemClass,
                                               const SecKeychainAttributeList *attributes,
                                               SecKeychainSearchRef *search) {
  behind::SecKeychainSearchRef theirs;
  const auto list = attributesIn(attributes);
  const OSStatus status =
      behind::SecKeychainSearchCreateFromAttributes(keychainAt(keychain), itemClass, &list, &theirs);
  return give<Search>(status, theirs, search, "SecKeychainSearch");
}

OSStatus SecKeychainSearchCopyNext(SecKeychainSearchRef search, SecKeychainItemRef *item) {
  behind::SecKeychainItemRef theirs;
  const OSStatus status = behind::SecKeychainSearchCopyNext(as<Search>(search).it, &theirs);
  return give<Item>(status, theirs, item, "SecKeychainItem");
}

OSStatus SecKeychainItemDelete(SecKeychainItemRef item) { return behind::SecKeychainItemDelete(as<Item>(item).it); }

OSStatus SecKeychainItemCreateFromContent(SecItemClass itemClass, SecKeychainAttributeList *attributes, UInt32 length,
                                          const void *data, SecKeychainRef keychain, SecAccessRef access,
                                          SecKeychainItemRef *item) {
  behind::SecKeychainItemRef theirs;
  const auto list = attributesIn(attributes);
  const OSStatus status =
      behind::SecKeychainItemCreateFromContent(itemClass, &list, length, data, keychainAt(keychain),
                                               access != nullptr ? as<Access>(access).it : nullptr, &theirs);
  return give<Item>(status, theirs, item, "SecKeychainItem");
}

OSStatus SecTrustedApplicationCreateFromPath(const char *path, SecTrustedApplicationRef *application) {
  if (path == nullptr) misuse("no path stands for this program");
  behind::SecTrustedApplicationRef theirs;
  const OSStatus status = behind::SecTrustedApplicationCreateFromPath(path, &theirs);
  return give<TrustedApplication>(status, theirs, application, "SecTrustedApplication");
}

OSStatus SecAccessCreate(CFStringRef descriptor, CFArrayRef trustedList, SecAccessRef *access) {
  if (trustedList == nullptr) misuse("no list stands for this program");
  std::vector<behind::SecTrustedApplicationRef> applications;
  for (CFIndex i = 0; i < ::CFArrayGetCount(trustedList); ++i)
    applications.push_back(as<TrustedApplication>(::CFArrayGetValueAtIndex(trustedList, i)).it);
  behind::SecAccessRef theirs;
  const OSStatus status = behind::SecAccessCreate(textIn(descriptor), applications, &theirs);
  return give<Access>(status, theirs, access, "SecAccess");
}

}  // extern "C"
