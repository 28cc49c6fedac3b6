#include "cli/GBSettings.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace GB {

std::shared_ptr<GBSettings> GBSettings::settingsWithName(std::string name, std::shared_ptr<GBSettings> parent) {
  return std::make_shared<GBSettings>(std::move(name), std::move(parent));
}

GBSettings::GBSettings(std::string name, std::shared_ptr<GBSettings> parent)
    : name_(std::move(name)), parent_(std::move(parent)) {
  registerArrayForKey(GBSettingsArgumentsKey);
}

GBSettings::~GBSettings() {
  // One layer after the other: each taking its parent along would need a stack as deep as the layers.
  std::shared_ptr<GBSettings> next = std::move(parent_);
  while (next && next.use_count() == 1) next = std::move(next->parent_);
}

void GBSettings::setParent(std::shared_ptr<GBSettings> parent) {
  for (const GBSettings *layer = parent.get(); layer != nullptr; layer = layer->parent_.get())
    if (layer == this) throw std::invalid_argument("layers of settings cannot form a ring");
  parent_ = std::move(parent);
}

const vpnctl::Value *GBSettings::localValue(std::string_view key) const {
  const auto entry = storage_.find(key);
  return entry != storage_.end() ? &entry->second : nullptr;
}

vpnctl::Value GBSettings::objectForKey(std::string_view key) const {
  if (!isKeyArray(key)) {
    const GBSettings *layer = settingsForKey(key);
    return layer != nullptr ? *layer->localValue(key) : Value();
  }
  Value::Array gathered;
  for (const GBSettings *layer = this; layer != nullptr; layer = layer->parent_.get()) {
    const Value *local = layer->localValue(key);
    if (local == nullptr) continue;
    if (local->isArray())
      gathered.insert(gathered.end(), local->array().begin(), local->array().end());
    else
      gathered.push_back(*local);
  }
  return Value::mutableArray(std::move(gathered));
}

void GBSettings::setObjectForKey(const Value &value, std::string_view key) {
  // The rule for array keys has one exception: a key that is an array itself replaces. It asks after the key, not after
  // the value, and keys are strings here, so what remains is the rule.
  if (!isKeyArray(key)) return setObjectForLocalKey(value, key);
  if (value.isNull()) throw std::invalid_argument("a settings layer cannot hold a null object");
  // A copy: VALUE may be part of what is changed below.
  const Value added = value;
  Value &local = storage_.try_emplace(std::string(key)).first->second;
  if (!local.isMutableArray()) {
    // Any other value, a plain array too, is one object that was there before.
    local = Value::mutableArray(local.isNull() ? Value::Array() : Value::Array{local});
  }
  if (added.isArray())
    for (const Value &element : added.array()) local.append(element);
  else
    local.append(added);
}

vpnctl::Value GBSettings::objectForLocalKey(std::string_view key) const {
  const Value *local = localValue(key);
  return local != nullptr ? *local : Value();
}

void GBSettings::setObjectForLocalKey(Value value, std::string_view key) {
  if (value.isNull()) throw std::invalid_argument("a settings layer cannot hold a null object");
  if (const auto entry = storage_.find(key); entry != storage_.end())
    entry->second = std::move(value);
  else
    storage_.emplace(key, std::move(value));
}

std::uint64_t GBSettings::unsignedIntegerForKey(std::string_view key) const {
  return static_cast<std::uint64_t>(objectForKey(key).integerValue());
}

const GBSettings *GBSettings::settingsForArgument(std::string_view argument) const {
  return settingsForArrayValue(Value(argument), GBSettingsArgumentsKey);
}

void GBSettings::enumerateSettings(const EnumerationBlock &block) {
  bool stop = false;
  for (GBSettings *layer = this; layer != nullptr && !stop; layer = layer->parent_.get()) block(*layer, &stop);
}

void GBSettings::enumerateSettings(const ConstEnumerationBlock &block) const {
  bool stop = false;
  for (const GBSettings *layer = this; layer != nullptr && !stop; layer = layer->parent_.get()) block(*layer, &stop);
}

const GBSettings *GBSettings::settingsForKey(std::string_view key) const {
  const GBSettings *layer = this;
  while (layer != nullptr && !layer->isKeyPresentAtThisLevel(key)) layer = layer->parent_.get();
  return layer;
}

const GBSettings *GBSettings::settingsForArrayValue(const Value &value, std::string_view key) const {
  for (const GBSettings *layer = this; layer != nullptr; layer = layer->parent_.get()) {
    const Value *local = layer->localValue(key);
    if (local == nullptr) continue;
    const Value::Array &elements = local->array();
    const bool contained =
        local->isArray() ? std::find(elements.begin(), elements.end(), value) != elements.end() : *local == value;
    if (contained) return layer;
  }
  return nullptr;
}

// The layers below a layer that may be changed may be changed.
GBSettings *GBSettings::settingsForArgument(std::string_view argument) {
  return const_cast<GBSettings *>(std::as_const(*this).settingsForArgument(argument));
}

GBSettings *GBSettings::settingsForKey(std::string_view key) {
  return const_cast<GBSettings *>(std::as_const(*this).settingsForKey(key));
}

GBSettings *GBSettings::settingsForArrayValue(const Value &value, std::string_view key) {
  return const_cast<GBSettings *>(std::as_const(*this).settingsForArrayValue(value, key));
}

}  // namespace GB
