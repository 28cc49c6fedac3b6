// What must hold for whatever bytes a property-list reader is given.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "foundation/Assertion.h"
#include "foundation/PropertyList.h"

// The most that XML grows when it is written anew: an empty piece of data takes two lines, each with its indentation.
constexpr std::size_t kLargestGrowth = 24;
constexpr std::size_t kLongestFrame = 256;  // around the value, in bytes

// Reads the bytes. What is read can be described; what can be written is no longer than it may be, is read back, and
// written again it is the same text.
inline void checkPropertyList(std::string_view bytes) {
  using vpnctl::propertyListFromData;
  using vpnctl::Result;
  using vpnctl::Value;
  const Result<Value> value = propertyListFromData(bytes, "input");
  if (!value) {
    FOUNDATION_ASSERT(value.error().message.starts_with("input: "));
    return;
  }
  FOUNDATION_ASSERT(!value->isNull());
  FOUNDATION_ASSERT(*value == *value);
  FOUNDATION_ASSERT(!value->description().empty() || value->isString());
  const Result<std::string> text = vpnctl::xmlPropertyList(*value);
  if (!text) return;  // a carriage return, a control character, a date out of range
  FOUNDATION_ASSERT(text->size() <= vpnctl::kPropertyListMaximumSize);
  // References may make much of few bytes.
  if (!bytes.starts_with("bplist00")) FOUNDATION_ASSERT(text->size() <= kLongestFrame + kLargestGrowth * bytes.size());
  const Result<Value> back = propertyListFromData(*text, "written");
  FOUNDATION_ASSERT(back);
  const Result<std::string> again = vpnctl::xmlPropertyList(*back);
  FOUNDATION_ASSERT(again && *again == *text);
}
