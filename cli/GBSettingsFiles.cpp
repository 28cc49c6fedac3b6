// How a layer of settings gets into a file and out of it.

#include <cerrno>
#include <utility>

#include "cli/FileReplacement.h"
#include "cli/GBSettings.h"
#include "cli/SettingsFile.h"
#include "foundation/OpenStepPropertyList.h"
#include "foundation/PropertyList.h"

namespace GB {

namespace {

// Keys may be written as they are typed on a command line.
std::string_view withoutDashes(std::string_view key) {
  const std::size_t start = key.find_first_not_of('-');
  return start == std::string_view::npos ? std::string_view() : key.substr(start);
}

bool isMissing(const vpnctl::Error &error) {
  return error.domain == vpnctl::kPOSIXErrorDomain && (error.code == ENOENT || error.code == ENOTDIR);
}

bool fail(vpnctl::Error *error, vpnctl::Error reason) {
  if (error != nullptr) *error = std::move(reason);
  return false;
}

// Stores what FILE, which NAME names, holds, in place of what SETTINGS held.
vpnctl::Status store(const vpnctl::Value &file, const std::string &name, GBSettings *settings) {
  if (!file.isDictionary()) {
    return vpnctl::Error{.domain = std::string(GBSettingsErrorDomain),
                         .code = 1,
                         .message = name + ": the top level is not a dictionary"};
  }
  settings->setStorage({});
  for (const auto &[key, value] : file.dictionary()) {
    if (value.isDictionary())
      for (const auto &[innerKey, innerValue] : value.dictionary())
        settings->setObjectForKey(innerValue, withoutDashes(innerKey));
    else
      settings->setObjectForKey(value, withoutDashes(key));
  }
  return {};
}

}  // namespace

bool GBSettings::loadSettingsFromPlist(const std::string &path, vpnctl::Error *error) {
  const vpnctl::Result<Value> file = vpnctl::propertyListOfAnyFormFromFile(path);
  if (!file) return isMissing(file.error()) ? false : fail(error, file.error());
  const vpnctl::Status stored = store(*file, path, this);
  return stored ? true : fail(error, stored.error());
}

bool GBSettings::saveSettingsToPlist(const std::string &path, vpnctl::Error *error) const {
  const vpnctl::Result<std::string> text = vpnctl::xmlPropertyList(storage_);
  if (!text) return fail(error, text.error());
  const vpnctl::Status written = replaceFile(path, *text);
  return written ? true : fail(error, written.error());
}

vpnctl::Status loadSettings(GBSettings &settings, const std::string &path) {
  const auto bytes = vpnctl::propertyListBytesFromFile(path, vpnctl::FileKinds::regularAndPipes);
  if (!bytes) return bytes.error();
  const vpnctl::Result<vpnctl::Value> file = vpnctl::propertyListOfAnyForm(*bytes, path);
  return file ? store(*file, path, &settings) : vpnctl::Status(file.error());
}

vpnctl::Status saveSettings(const GBSettings &settings, const std::string &path) {
  const vpnctl::Result<std::string> text = vpnctl::xmlPropertyList(settings.storage());
  return text ? replaceFileBehindLinks(path, *text) : vpnctl::Status(text.error());
}

}  // namespace GB
