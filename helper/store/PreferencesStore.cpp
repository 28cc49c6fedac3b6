#include "helper/store/PreferencesStore.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include "helper/store/NetworkPreferencesSchema.h"
#include "wire/StatusCodes.h"

namespace helper {

using vpnctl::Error;
using vpnctl::Result;
using vpnctl::Status;
using vpnctl::Value;

namespace {

constexpr mode_t kFolderMode = 0755;
constexpr mode_t kFileMode = 0644;

// What tells one state of the file from another. The time of the last change of the inode stands beside the one of the
// contents, since the latter can be set back.
std::string signatureOf(const struct stat &attributes) {
  const std::array<std::int64_t, 7> fields = {static_cast<std::int64_t>(attributes.st_dev),
                                              static_cast<std::int64_t>(attributes.st_ino),
                                              attributes.st_size,
                                              attributes.st_mtim.tv_sec,
                                              attributes.st_mtim.tv_nsec,
                                              attributes.st_ctim.tv_sec,
                                              attributes.st_ctim.tv_nsec};
  std::string signature(sizeof(fields), '\0');
  std::memcpy(signature.data(), fields.data(), sizeof(fields));
  return signature;
}

// A system without a file has a signature too: a file that appears makes it stale.
std::string signatureOfNoFile() { return "none"; }

std::int32_t codeOf(const Error &error) {
  switch (error.code) {
    case EACCES:
    case EPERM:
    case EROFS:
      return wire::kSCStatusAccessError;
    default:
      return wire::kSCStatusFailed;
  }
}

// Those of the network preferences ROOT that name the keychain's ITEM.
std::vector<Value> servicesNaming(const Value &root, const std::string &item) {
  std::vector<Value> found;
  for (const auto &[identifier, service] : root["NetworkServices"].dictionary())
    if (service["PPP"]["AuthPassword"] == Value(item) || service["IPSec"]["SharedSecret"] == Value(item))
      found.push_back(service);
  return found;
}

}  // namespace

PreferencesStore::PreferencesStore(std::string path, vpnctl::FileSystem &fileSystem, PPPLog &log,
                                   std::chrono::milliseconds lockPatience)
    : file_(std::move(path), fileSystem), log_(log), lockPatience_(lockPatience) {}

Error PreferencesStore::report(std::int32_t code, const Error &error) const {
  log_.write("The network preferences: " + error.message);
  return {std::string(wire::kSCErrorDomain), code, error.message};
}

Result<PreferencesStore::Parsed> PreferencesStore::readParsed() const {
  auto file = file_.read(kMaximumSize);
  if (!file) return report(codeOf(file.error()), file.error());
  Parsed parsed;
  if (!file->has_value()) {
    parsed.contents.signature = signatureOfNoFile();
    return parsed;
  }
  auto value = vpnctl::propertyListFromData((*file)->bytes, file_.path(), kLimits);
  // What has another shape would be taken for absent, and overwritten, by whoever changes what he has read.
  if (auto status = value ? checkNetworkPreferences(*value) : Status(); !status)
    value = Error{status.error().domain, status.error().code, file_.path() + ": " + status.error().message};
  if (!value) {
    Error error = value.error();
    error.message += "; it is left alone: mend it, or move it away";
    return report(wire::kSCStatusFailed, error);
  }
  parsed.contents.signature = signatureOf((*file)->attributes);
  parsed.contents.propertyList = std::move((*file)->bytes);
  parsed.value = std::move(*value);
  return parsed;
}

Result<PreferencesStore::Contents> PreferencesStore::read() const {
  auto parsed = readParsed();
  if (!parsed) return parsed.error();
  return std::move(parsed->contents);
}

Result<Value> PreferencesStore::readValue() const {
  auto parsed = readParsed();
  if (!parsed) return parsed.error();
  return std::move(parsed->value);
}

Result<Value> PreferencesStore::readValueWith(const std::string &service) const {
  auto value = readValue();
  const bool replaced = value && (*value)["NetworkServices"].find(service) == nullptr &&
                        committed_["NetworkServices"].find(service) != nullptr;
  return replaced ? Result<Value>(committed_) : value;
}

Value PreferencesStore::serviceNaming(const std::string &item) const {
  if (item.empty()) return {};
  auto found = servicesNaming(committed_, item);
  if (found.empty())
    if (const auto value = readValue()) found = servicesNaming(*value, item);
  return found.size() == 1 ? found.front() : Value();
}

Result<std::string> PreferencesStore::commit(std::string_view propertyList, std::string_view expected) {
  auto value = vpnctl::propertyListFromData(propertyList, "what is to be written", kLimits);
  if (!value) return report(wire::kSCStatusInvalidArgument, value.error());
  if (auto status = checkNetworkPreferences(*value); !status)
    return report(wire::kSCStatusInvalidArgument, status.error());
  // Written in our own form, whatever form it came in; that may be far longer.
  auto bytes = vpnctl::xmlPropertyList(*value, kMaximumSize);
  if (!bytes) return report(wire::kSCStatusInvalidArgument, bytes.error());

  if (auto status = file_.createFolder(kFolderMode); !status) return report(codeOf(status.error()), status.error());
  auto lock = file_.lock(lockPatience_);
  if (!lock) {
    const bool busy = lock.error().code == EWOULDBLOCK;
    return report(busy ? wire::kSCStatusPrefsBusy : codeOf(lock.error()), lock.error());
  }
  auto current = readParsed();
  if (!current) return current.error();
  if (!expected.empty() && current->contents.signature != expected) {
    return report(wire::kSCStatusStale, {std::string(wire::kSCErrorDomain), 0,
                                         file_.path() + " has been changed by somebody else meanwhile"});
  }
  if (auto status = file_.replace(*bytes, kFileMode); !status) return report(codeOf(status.error()), status.error());
  auto written = file_.read(kMaximumSize);
  if (!written || !written->has_value())
    return report(wire::kSCStatusFailed, vpnctl::errnoError(EIO, "read back " + file_.path()));
  committed_ = std::move(*value);
  return signatureOf((*written)->attributes);
}

}  // namespace helper
