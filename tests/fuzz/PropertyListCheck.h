// What must hold for whatever bytes a property-list reader is given.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "foundation/Assertion.h"
#include "foundation/PropertyList.h"

// Reads the bytes. What is read can be described; what can be written is read back, and written again it is the same
// text.
inline void checkPropertyList(std::string_view bytes) {
  using foundation::propertyListFromData;
  using foundation::Result;
  using foundation::Value;
  const Result<Value> value = propertyListFromData(bytes, "input");
  if (!value) {
    FOUNDATION_ASSERT(value.error().message.starts_with("input: "));
    return;
  }
  FOUNDATION_ASSERT(!value->isNull());
  FOUNDATION_ASSERT(*value == *value);
  FOUNDATION_ASSERT(!value->description().empty() || value->isString());
  const Result<std::string> text = foundation::xmlPropertyList(*value);
  if (!text) return;  // a carriage return, a control character, a date out of range
  if (text->size() > foundation::kPropertyListMaximumSize) return;
  const Result<Value> back = propertyListFromData(*text, "written");
  FOUNDATION_ASSERT(back);
  const Result<std::string> again = foundation::xmlPropertyList(*back);
  FOUNDATION_ASSERT(again && *again == *text);
}
