// How a layer of settings gets into a file and out of it.

#include <cerrno>
#include <utility>

#include "cli/FileReplacement.h"
#include "cli/GBSettings.h"
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

}  // namespace

bool GBSettings::loadSettingsFromPlist(const std::string &path, foundation::Error *error) {
  const foundation::Result<Value> file = foundation::propertyListOfAnyFormFromFile(path);
  if (!file) return isMissing(file.error()) ? false : fail(error, file.error());
  if (!file->isDictionary()) {
    return fail(error, {.domain = std::string(GBSettingsErrorDomain),
                        .code = 1,
                        .message = path + ": the top level is not a dictionary"});
  }
  storage_.clear();
  for (const auto &[key, value] : file->dictionary()) {
    if (value.isDictionary())
      for (const auto &[innerKey, innerValue] : value.dictionary())
        setObjectForKey(innerValue, withoutDashes(innerKey));
    else
      setObjectForKey(value, withoutDashes(key));
  }
  return true;
}

bool GBSettings::saveSettingsToPlist(const std::string &path, foundation::Error *error) const {
  const foundation::Result<std::string> text = foundation::xmlPropertyList(storage_);
  if (!text) return fail(error, text.error());
  const foundation::Status written = replaceFile(path, *text);
  return written ? true : fail(error, written.error());
}

}  // namespace GB
