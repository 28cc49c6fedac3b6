// Calls of the helper's methods made from an input: right ones, and ones that are wrong in their types, sizes, names or
// bytes.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tests/fuzz/DBusBytes.h"

namespace fuzz {

enum class Method {
  tellOfReadableSecrets,
  readPreferences,
  commitPreferences,
  applyPreferences,
  addKeychainItem,
  findKeychainItems,
  deleteKeychainItem,
  startLink,
  stopLink,
  linkStatus,
  none  // that the helper has
};

struct MethodDescription {
  Method method;
  const char *name;
  const char *arguments;
  const char *results;
};
const std::vector<MethodDescription> &methods();

// What the helper has told, for calls that come back to it.
struct Memory {
  std::string signature;
  std::string item;
};

struct Call {
  enum class Promise {
    error,   // the helper must refuse it as malformed
    result,  // it is the right call; only what stands in it may be beyond the limits
    any      // nobody knows what it is
  };
  Method method = Method::none;
  Promise promise = Promise::any;
  std::uint32_t serial = 0;
  bool wantsAnswer = true;
  std::string service;  // the first text, if it has one
  bool lingers = false;
  std::string bytes;
};

// The next call of INPUT.
Call nextCall(Input &input, std::uint32_t serial, const Memory &memory);

}  // namespace fuzz
