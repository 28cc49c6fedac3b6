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

bool isMissing(const foundation::Error &error) {
  return error.domain == foundation::kPOSIXErrorDomain && (error.code == ENOENT || error.code == ENOTDIR);
}

bool fail(foundation::Error *error, foundation::Error reason) {
  if (error != nullptr) *error = std::move(reason);
  return false;
}

// Stores what FILE, which NAME names, holds, in place of what SETTINGS held.
foundation::Status store(const foundation::Value &file, const std::string &name, GBSettings *settings) {
  if (!file.isDictionary()) {
    return foundation::Error{.domain = std::string(GBSettingsErrorDomain),
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

bool GBSettings::loadSettingsFromPlist(const std::string &path, foundation::Error *error) {
  const foundation::Result<Value> file = foundation::propertyListOfAnyFormFromFile(path);
  if (!file) return isMissing(file.error()) ? false : fail(error, file.error());
  const foundation::Status stored = store(*file, path, this);
  return stored ? true : fail(error, stored.error());
}

bool GBSettings::saveSettingsToPlist(const std::string &path, foundation::Error *error) const {
  const foundation::Result<std::string> text = foundation::xmlPropertyList(storage_);
  if (!text) return fail(error, text.error());
  const foundation::Status written = replaceFile(path, *text);
  return written ? true : fail(error, written.error());
}

foundation::Status loadSettings(GBSettings &settings, const std::string &path) {
  const auto bytes = foundation::propertyListBytesFromFile(path, foundation::FileKinds::regularAndPipes);
  if (!bytes) return bytes.error();
  const foundation::Result<foundation::Value> file = foundation::propertyListOfAnyForm(*bytes, path);
  return file ? store(*file, path, &settings) : foundation::Status(file.error());
}

foundation::Status saveSettings(const GBSettings &settings, const std::string &path) {
  const foundation::Result<std::string> text = foundation::xmlPropertyList(settings.storage());
  return text ? replaceFileBehindLinks(path, *text) : foundation::Status(text.error());
}

}  // namespace GB
