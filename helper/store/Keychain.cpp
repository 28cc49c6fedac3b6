#include "helper/store/Keychain.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "foundation/PropertyList.h"
#include "foundation/UUID.h"
#include "wire/Messages.h"
#include "wire/StatusCodes.h"

namespace helper {

using vpnctl::Error;
using vpnctl::Result;
using vpnctl::Secret;
using vpnctl::Status;
using vpnctl::Value;

namespace {

constexpr mode_t kFolderMode = 0700;
constexpr mode_t kFileMode = 0600;
constexpr std::size_t kMaximumFile = std::size_t{4} << 20;  // bytes

Error keychainError(std::int32_t code, std::string message) {
  return {std::string(wire::kOSStatusDomain), code, std::move(message)};
}

std::int32_t codeOf(const Error &error) {
  switch (error.code) {
    case EACCES:
    case EPERM:
    case EROFS:
      return wire::errSecWrPerm;
    default:
      return wire::errSecNotAvailable;
  }
}

bool isKnownAttribute(std::uint32_t tag) {
  return tag == kLabelAttribute || tag == kAccountAttribute || tag == kServiceAttribute || tag == kDescriptionAttribute;
}

bool isAcceptable(const KeychainItem::Attributes &attributes) {
  return std::all_of(
      attributes.begin(), attributes.end(),
      [](const auto &entry) {
        return isKnownAttribute(entry.first) && entry.second.size() <= Keychain::kMaximumAttribute;
      });
}

bool isAcceptable(const KeychainItem::Access &access) {
  return access.description.size() <= wire::kMaximumText && isPlainText(access.description) &&
         access.trustedPaths.size() <= wire::kMaximumPaths &&
         std::all_of(
             access.trustedPaths.begin(), access.trustedPaths.end(),
             [](const std::string &path) {
               return path.starts_with('/') && path.size() <= wire::kMaximumText && isPlainText(path);
             });
}

}  // namespace

Keychain::Keychain(const std::string &folder, vpnctl::FileSystem &fileSystem, PPPLog &log, Roles roles,
                   std::chrono::milliseconds lockPatience)
    : file_(folder + "/System.keychain", fileSystem),
      keyPath_(folder + "/SystemKey"),
      fileSystem_(fileSystem),
      log_(log),
      roles_(std::move(roles)),
      lockPatience_(lockPatience) {}

Error Keychain::report(std::int32_t code, const Error &error) const {
  log_.write("The keychain: " + error.message);
  return keychainError(code, error.message);
}

Result<Keychain::Items> Keychain::load() const {
  auto file = file_.read(kMaximumFile);
  if (!file) return report(codeOf(file.error()), file.error());
  Items items;
  if (!file->has_value()) return items;
  const auto damaged = [this](std::string reason) {
    return report(wire::errSecInvalidKeychain,
                  keychainError(0, std::move(reason) + "; it is left alone: mend it, or move it "
                                                       "away"));
  };
  auto root = vpnctl::propertyListFromData((*file)->bytes, file_.path());
  if (!root) return damaged(root.error().message);
  if ((*root)["Version"] != Value(1) || !(*root)["Items"].isDictionary())
    return damaged(file_.path() + ": it is not a keychain of version 1");
  for (const auto &[identifier, value] : (*root)["Items"].dictionary()) {
    auto item = KeychainItem::fromValue(identifier, value);
    if (!item) return damaged(file_.path() + ": " + item.error().message);
    items.emplace(identifier, std::move(*item));
  }
  return items;
}

Status Keychain::store(const Items &items) {
  Value values{Value::Dictionary()};
  for (const auto &[identifier, item] : items) values.set(identifier, item.value());
  auto bytes = vpnctl::xmlPropertyList(Value::Dictionary{{"Version", 1}, {"Items", values}});
  if (!bytes) return report(wire::errSecParam, bytes.error());
  if (bytes->size() > kMaximumFile) return report(wire::errSecParam, keychainError(0, file_.path() + " is full"));
  if (auto status = file_.replace(*bytes, kFileMode); !status) return report(codeOf(status.error()), status.error());
  return {};
}

Result<linux::AtomicFile::Lock> Keychain::lock() const {
  if (auto status = file_.createFolder(kFolderMode); !status) return report(codeOf(status.error()), status.error());
  auto lock = file_.lock(lockPatience_);
  if (!lock) return report(codeOf(lock.error()), lock.error());
  return lock;
}

Result<SystemKey> Keychain::keyFor(const Items &items) {
  auto key = SystemKey::load(keyPath_, fileSystem_);
  if (key) SystemKey::removeRemains(keyPath_, fileSystem_);
  if (key || key.error().code != ENOENT) return key;
  if (!items.empty()) {
    // A new key would open none of them, and the old one may still come back.
    return Error{key.error().domain, key.error().code,
                 keyPath_ +
                     " is missing, but the keychain holds items that were sealed with it; bring the key back, "
                     "or move " +
                     file_.path() + " away"};
  }
  return SystemKey::create(keyPath_, fileSystem_);
}

Result<std::string> Keychain::add(const KeychainItem::Attributes &attributes, const Secret &secret,
                                  const KeychainItem::Access &access, const std::optional<SecretUse> &use) {
  if (!isAcceptable(attributes) || !isAcceptable(access) || secret.size() > kMaximumSecret)
    return keychainError(wire::errSecParam,
                         "an attribute, the access list or the secret is too large or no plain text");
  auto lock = this->lock();
  if (!lock) return lock.error();
  auto items = load();
  if (!items) return items.error();

  KeychainItem item{vpnctl::newUUID(), attributes, access, use, {}};
  item.attributes.try_emplace(kAccountAttribute);
  item.attributes.try_emplace(kServiceAttribute);
  item.attributes.try_emplace(kLabelAttribute, item.attribute(kServiceAttribute));
  const KeychainItem::Attributes identity = {{kAccountAttribute, item.attribute(kAccountAttribute)},
                                             {kServiceAttribute, item.attribute(kServiceAttribute)}};
  for (const auto &[identifier, other] : *items)
    if (other.matches(identity))
      return keychainError(wire::errSecDuplicateItem, "an item has this account and service");
  auto key = keyFor(*items);
  if (!key) return report(codeOf(key.error()), key.error());
  auto sealed = key->seal(secret, item.associatedData());
  if (!sealed) return report(codeOf(sealed.error()), sealed.error());
  item.sealedSecret = std::move(*sealed);
  std::string identifier = item.identifier;
  items->emplace(identifier, item);
  if (auto status = store(*items); !status) return status.error();
  own_.emplace(identifier, std::move(item));
  return identifier;
}

Result<std::vector<std::string>> Keychain::find(const KeychainItem::Attributes &attributes) const {
  if (!isAcceptable(attributes)) return keychainError(wire::errSecParam, "an attribute is unknown or too large");
  auto items = load();
  if (!items) return items.error();
  std::vector<std::string> found;
  for (const auto &[identifier, item] : *items)
    if (item.matches(attributes)) found.push_back(identifier);
  return found;
}

Status Keychain::remove(const std::string &identifier) {
  auto lock = this->lock();
  if (!lock) return lock.error();
  auto items = load();
  if (!items) return items.error();
  if (items->erase(identifier) == 0) return keychainError(wire::errSecItemNotFound, "no item " + identifier);
  Status stored = store(*items);
  if (stored) own_.erase(identifier);
  return stored;
}

bool Keychain::trusts(const KeychainItem &item, const Peer &peer) const {
  return std::any_of(
      item.access.trustedPaths.begin(), item.access.trustedPaths.end(),
      [&](const std::string &path) {
        const auto role = roles_.find(path);
        if (role == roles_.end()) return peer.runs(path);
        return std::any_of(
            role->second.begin(), role->second.end(), [&](const std::string &program) { return peer.runs(program); });
      });
}

Result<Secret> Keychain::open(const KeychainItem &item, const SecretUse &use) const {
  const std::string name = "the keychain's item for " + item.attribute(kServiceAttribute);
  const auto refused = [&name](const std::string &reason) {
    return keychainError(wire::errSecAuthFailed, name + reason);
  };
  constexpr char kRemedy[] = "; run vpnctl with its configuration, which stores it anew";
  if (!item.use) return refused(std::string(" does not say which service it was stored for") + kRemedy);
  if (item.use->owner != use.owner)
    return refused(" was stored by user " + std::to_string(item.use->owner) + ", and this is user " +
                   std::to_string(use.owner) + kRemedy);
  if (const auto place = item.use->differenceTo(use))
    return refused(" was stored for another service: " + *place + " differs" + kRemedy);
  auto key = SystemKey::load(keyPath_, fileSystem_);
  if (!key) return keychainError(codeOf(key.error()), key.error().message);
  auto secret = key->unseal(item.sealedSecret, item.associatedData());
  if (!secret) return refused(" does not open");
  return secret;
}

Result<Secret> Keychain::secretForService(const std::string &service, const SecretUse &use, const Peer &peer) {
  auto items = load();
  if (!items) return items.error();
  items->insert(own_.begin(), own_.end());
  Error refusal = keychainError(wire::errSecItemNotFound, "the keychain has no item for " + service);
  for (const auto &[identifier, item] : *items) {
    if (item.attribute(kServiceAttribute) != service) continue;
    if (!trusts(item, peer)) {
      refusal =
          keychainError(wire::errSecAuthFailed, "process " + std::to_string(peer.pid()) +
                                                    " is not on the access list of the keychain's item for " + service);
      continue;
    }
    auto secret = open(item, use);
    if (secret) return secret;
    refusal = secret.error();
  }
  return refusal;
}

}  // namespace helper
