// Settings in layers: each layer has a name and may have a parent; a key that a layer does not hold is looked up in its
// parent, so that the command line can lie on a file, and the file on factory defaults. Keys registered as array keys
// collect: writing appends, reading gathers the values of all layers. Positional arguments are such a key.
//
// Usual sequence:
//
//   auto defaults = GBSettings::settingsWithName("defaults", nullptr);
//   auto file = GBSettings::settingsWithName("file", defaults);
//   auto settings = GBSettings::settingsWithName("command line", file);
//   file->loadSettingsFromPlist(path, &error);
//   parser.registerSettings(settings);
//   ... settings->integerForKey("count") ...
//
// Errors: a null Value cannot be stored (std::invalid_argument, which is not meant to be caught). Files report through
// a bool and a vpnctl::Error. Thread rule: one thread at a time for a layer and all below it; only the two file
// operations block.

#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "foundation/Result.h"
#include "foundation/Value.h"

namespace GB {

// The key of the positional arguments, an ordinary key otherwise: files contain it under this name.
inline constexpr std::string_view GBSettingsArgumentsKey = "B450A340-EC4F-40EC-B18D-B52DB881A16A";

// The error domain, beside "POSIX" and "PropertyList", of a file whose top level is not a dictionary (code 1).
inline constexpr std::string_view GBSettingsErrorDomain = "GBSettings";

class GBSettings {
 public:
  using Value = vpnctl::Value;
  using KeySet = std::set<std::string, std::less<>>;
  using EnumerationBlock = std::function<void(GBSettings &settings, bool *stop)>;
  using ConstEnumerationBlock = std::function<void(const GBSettings &settings, bool *stop)>;

  static std::shared_ptr<GBSettings> settingsWithName(std::string name, std::shared_ptr<GBSettings> parent);
  // A layer without values whose one array key is that of the arguments. PARENT is shared; without one this is the
  // bottom layer.
  explicit GBSettings(std::string name, std::shared_ptr<GBSettings> parent = nullptr);
  GBSettings(const GBSettings &) = default;
  GBSettings(GBSettings &&) = default;
  GBSettings &operator=(const GBSettings &) = default;
  GBSettings &operator=(GBSettings &&) = default;
  // As many layers as there are may die with this one.
  ~GBSettings();

  // Free text, shown as a column's title by the values table.
  const std::string &name() const { return name_; }
  void setName(std::string name) { name_ = std::move(name); }
  const std::shared_ptr<GBSettings> &parent() const { return parent_; }
  // Walks the layers from PARENT down: one that this layer is below of would close a ring, and is refused by
  // std::invalid_argument.
  void setParent(std::shared_ptr<GBSettings> parent);
  const KeySet &arrayKeys() const { return arrayKeys_; }
  void setArrayKeys(KeySet keys) { arrayKeys_ = std::move(keys); }
  // The values of this layer alone.
  const Value::Dictionary &storage() const { return storage_; }
  void setStorage(Value::Dictionary storage) { storage_ = std::move(storage); }

  // Replaces this layer's values by those of a property list: XML, binary or the older text form. Where a top-level
  // value is a dictionary, its entries are taken and its key, a mere heading, is dropped; dictionaries further down are
  // values. Dashes in front of a key go ("--output" is "output"). Storing follows setObjectForKey: array keys collect.
  //
  // False on failure; then the layer is as it was. What is no regular file is a failure. A missing file leaves *ERROR
  // alone; anything else fills it: "POSIX" (not readable), "PropertyList" (not to be parsed; with line or offset),
  // GBSettingsErrorDomain.
  [[nodiscard]] bool loadSettingsFromPlist(const std::string &path, vpnctl::Error *error = nullptr);

  // Writes this layer's values, without the parents', as an XML property list. The file is replaced whole, or on
  // failure (false, with *ERROR) left whole; see replaceFile() for what it refuses.
  [[nodiscard]] bool saveSettingsToPlist(const std::string &path, vpnctl::Error *error = nullptr) const;

  // For an array key of this layer: a new mutable array of the elements of all layers, this one's first; empty where
  // no layer has any. (A layer's value that is no array counts as one element.) For any other key: the value of the
  // nearest layer that has one, never merged; null when none has.
  Value objectForKey(std::string_view key) const;
  // Stores VALUE in this layer: replacing, or for an array key of this layer appending, an array element by element.
  void setObjectForKey(const Value &value, std::string_view key);
  // This layer's own value; null when there is none.
  Value objectForLocalKey(std::string_view key) const;
  // Replaces this layer's value, for array keys too. A plain array put under an array key this way is one object: the
  // next append makes it the first element of a new array.
  void setObjectForLocalKey(Value value, std::string_view key);
  bool isKeyPresentAtThisLevel(std::string_view key) const { return storage_.contains(key); }

  void registerArrayForKey(std::string_view key) { arrayKeys_.emplace(key); }
  // Asks this layer alone: a key may be an array key here and an ordinary one below.
  bool isKeyArray(std::string_view key) const { return arrayKeys_.contains(key); }

  // objectForKey() and a conversion (text converts too); false, 0 and 0.0 for what is missing.
  bool boolForKey(std::string_view key) const { return objectForKey(key).boolValue(); }
  void setBool(bool value, std::string_view key) { setObjectForKey(value, key); }
  std::int64_t integerForKey(std::string_view key) const { return objectForKey(key).integerValue(); }
  void setInteger(std::int64_t value, std::string_view key) { setObjectForKey(value, key); }
  // Goes through the signed conversion, as integerForKey() does: what lies above the signed range comes back wrapped,
  // and text above it comes back as the largest signed number.
  std::uint64_t unsignedIntegerForKey(std::string_view key) const;
  void setUnsignedInteger(std::uint64_t value, std::string_view key) { setObjectForKey(value, key); }
  double floatForKey(std::string_view key) const { return objectForKey(key).doubleValue(); }
  void setFloat(double value, std::string_view key) { setObjectForKey(value, key); }

  // The positional arguments: objectForKey() and setObjectForKey() with GBSettingsArgumentsKey.
  void addArgument(std::string argument) { setObjectForKey(Value(std::move(argument)), GBSettingsArgumentsKey); }
  Value arguments() const { return objectForKey(GBSettingsArgumentsKey); }
  // Adds to the arguments that are there, as writing an array key does.
  void setArguments(const Value &arguments) { setObjectForKey(arguments, GBSettingsArgumentsKey); }
  GBSettings *settingsForArgument(std::string_view argument);
  const GBSettings *settingsForArgument(std::string_view argument) const;

  // Calls BLOCK for this layer, its parent and so on down, until it sets *STOP.
  void enumerateSettings(const EnumerationBlock &block);
  void enumerateSettings(const ConstEnumerationBlock &block) const;
  // The first layer from here down that holds KEY; null when none does. The layer belongs to whoever holds this one.
  GBSettings *settingsForKey(std::string_view key);
  const GBSettings *settingsForKey(std::string_view key) const;
  // The first layer whose own value for KEY contains VALUE (or, being no array, equals it); null when none does.
  GBSettings *settingsForArrayValue(const Value &value, std::string_view key);
  const GBSettings *settingsForArrayValue(const Value &value, std::string_view key) const;

 private:
  const Value *localValue(std::string_view key) const;

  std::string name_;
  std::shared_ptr<GBSettings> parent_;
  KeySet arrayKeys_;
  Value::Dictionary storage_;
};

}  // namespace GB
