// The text form of a property list, and telling the three forms apart.

#include <cstdint>
#include <string_view>

#include "foundation/Assertion.h"
#include "foundation/OpenStepPropertyList.h"
#include "foundation/PropertyList.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  using vpnctl::Result;
  using vpnctl::Value;
  const std::string_view bytes(reinterpret_cast<const char *>(data), size);
  const Result<Value> any = vpnctl::propertyListOfAnyForm(bytes, "input");
  if (!any) FOUNDATION_ASSERT(any.error().message.starts_with("input: "));
  const Result<Value> value = vpnctl::propertyListFromOpenStep(bytes, "input");
  if (!value) {
    FOUNDATION_ASSERT(value.error().message.starts_with("input: line "));
    return 0;
  }
  FOUNDATION_ASSERT(value->isString() || value->isArray() || value->isDictionary() ||
                    value->type() == Value::Type::data);
  FOUNDATION_ASSERT(*value == *value);
  // What is read here and can be written as XML is the same there.
  const Result<std::string> text = vpnctl::xmlPropertyList(*value);
  if (!text) return 0;  // control characters
  const Result<Value> back = vpnctl::propertyListOfAnyForm(*text, "written");
  FOUNDATION_ASSERT(back && *back == *value);
  return 0;
}
