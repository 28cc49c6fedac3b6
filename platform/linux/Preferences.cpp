#include "platform/linux/Preferences.h"

#include <algorithm>
#include <utility>

#include "foundation/PropertyList.h"
#include "platform/SCErrorState.h"
#include "platform/linux/Authorization.h"
#include "platform/linux/DefaultConfiguration.h"

namespace platform {

using vpnctl::Value;

namespace {

void setAt(Value &container, const Path &path, std::size_t depth, Value value) {
  const std::string &key = path[depth];
  if (depth + 1 == path.size()) {
    if (value.isNull())
      container.remove(key);
    else
      container.set(key, std::move(value));
    return;
  }
  Value inner = container[key];
  if (!inner.isDictionary()) {
    if (value.isNull()) return;
    inner = Value::Dictionary();
  }
  setAt(inner, path, depth + 1, std::move(value));
  container.set(key, std::move(inner));
}

}  // namespace

bool SCPreferences::load() {
  if (!root_.isNull()) return true;
  auto answer = helper->readPreferences();
  if (!answer) {
    setSCError(kSCStatusNoPrefsSession);
    return false;
  }
  if (answer->error != kSCStatusOK) {
    setSCError(answer->error);
    return false;
  }
  if (answer->propertyList.empty()) {
    root_ = freshPreferences();
  } else {
    auto value = vpnctl::propertyListFromData(answer->propertyList, "the network preferences");
    if (!value || !value->isDictionary()) {
      setSCError(kSCStatusFailed);
      return false;
    }
    root_ = std::move(*value);
  }
  signature_ = std::move(answer->signature);
  changed_ = false;
  return true;
}

bool SCPreferences::commit() {
  if (!changed_) return true;
  const auto bytes = vpnctl::xmlPropertyList(root_);
  if (!bytes) {
    setSCError(kSCStatusInvalidArgument);
    return false;
  }
  auto answer = helper->commitPreferences(*bytes, signature_);
  if (!answer || answer->error != kSCStatusOK) {
    setSCError(answer ? answer->error : static_cast<std::int32_t>(kSCStatusNoPrefsSession));
    return false;
  }
  signature_ = std::move(answer->signature);
  changed_ = false;
  return true;
}

void SCPreferences::forget() {
  root_ = {};
  signature_.clear();
  changed_ = false;
}

const Value &SCPreferences::get(const Path &path) const {
  const Value *value = &root_;
  for (const auto &key : path) value = &(*value)[key];
  return *value;
}

void SCPreferences::set(const Path &path, Value value) {
  setAt(root_, path, 0, std::move(value));
  changed_ = true;
}

// ---- The session

SCPreferencesRef SCPreferencesCreateWithAuthorization(const std::string &, const std::optional<std::string> &prefsID,
                                                      const AuthorizationRef &authorization) {
  setSCError(kSCStatusOK);
  if (prefsID) {
    setSCError(kSCStatusInvalidArgument);
    return {};
  }
  if (!authorization || !authorization->helper || !authorization->helper->isOpen()) {
    setSCError(kSCStatusNoPrefsSession);
    return {};
  }
  return std::make_shared<SCPreferences>(authorization->helper);
}

bool SCPreferencesCommitChanges(const SCPreferencesRef &preferences) {
  if (preferences) return preferences->commit();
  setSCErrorForNullArgument();
  return false;
}

bool SCPreferencesApplyChanges(const SCPreferencesRef &preferences) {
  if (!preferences) {
    setSCErrorForNullArgument();
    return false;
  }
  const auto answer = preferences->helper->applyPreferences();
  if (answer && *answer == kSCStatusOK) return true;
  setSCError(answer ? *answer : static_cast<std::int32_t>(kSCStatusNoPrefsSession));
  return false;
}

void SCPreferencesSynchronize(const SCPreferencesRef &preferences) {
  if (preferences) return preferences->forget();
  setSCErrorForNullArgument();
}

}  // namespace platform
