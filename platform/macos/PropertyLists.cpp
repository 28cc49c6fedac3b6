#include "platform/macos/PropertyLists.h"

#include <cstdint>
#include <limits>
#include <vector>

namespace platform::macos {
namespace {

using vpnctl::Value;
using Any = CFObject<CFTypeRef>;

template <class Reference>
Any any(CFObject<Reference> object) {
  return Any::owned(object.release());
}

Any numberOf(CFNumberType type, const void *number) { return Any::owned(::CFNumberCreate(nullptr, type, number)); }

Any numberOf(std::int64_t number) { return numberOf(kCFNumberSInt64Type, &number); }

Any arrayOf(const Value::Array &elements) {
  auto array = CFObject<CFMutableArrayRef>::owned(::CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks));
  if (!array) return {};
  for (const Value &element : elements) {
    const Any converted = propertyListOf(element);
    if (!converted) return {};
    ::CFArrayAppendValue(array.get(), converted.get());
  }
  return any(std::move(array));
}

Any dictionaryWith(const Value::Dictionary &entries) {
  auto dictionary = CFObject<CFMutableDictionaryRef>::owned(
      ::CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
  if (!dictionary) return {};
  for (const auto &[key, value] : entries) {
    const auto name = stringOf(key);
    const Any converted = propertyListOf(value);
    if (!name || !converted) return {};
    ::CFDictionarySetValue(dictionary.get(), name.get(), converted.get());
  }
  return any(std::move(dictionary));
}

Value numberIn(CFNumberRef number) {
  std::int64_t integer = 0;
  if (::CFNumberIsFloatType(number) == 0 && ::CFNumberGetValue(number, kCFNumberSInt64Type, &integer) != 0)
    return integer;
  // Also an integer past the range, which a property list may hold.
  double real = 0;
  return ::CFNumberGetValue(number, kCFNumberDoubleType, &real) != 0 ? Value(real) : Value();
}

Value dataIn(CFDataRef data) {
  const UInt8 *const bytes = ::CFDataGetBytePtr(data);
  return Value::Data(bytes, bytes + ::CFDataGetLength(data));
}

Value arrayIn(CFArrayRef array) {
  Value::Array elements;
  for (CFIndex i = 0; i < ::CFArrayGetCount(array); ++i)
    if (Value element = valueOf(::CFArrayGetValueAtIndex(array, i)); !element.isNull())
      elements.push_back(std::move(element));
  return elements;
}

Value dictionaryIn(CFDictionaryRef dictionary) {
  const auto count = static_cast<std::size_t>(::CFDictionaryGetCount(dictionary));
  std::vector<const void *> keys(count);
  std::vector<const void *> values(count);
  ::CFDictionaryGetKeysAndValues(dictionary, keys.data(), values.data());
  Value::Dictionary entries;
  for (std::size_t i = 0; i < count; ++i) {
    const Value key = valueOf(keys[i]);
    Value value = valueOf(values[i]);
    if (key.isString() && !value.isNull()) entries.emplace(key.string(), std::move(value));
  }
  return entries;
}

}  // namespace

CFObject<CFStringRef> stringOf(std::string_view text) {
  return CFObject<CFStringRef>::owned(::CFStringCreateWithBytes(nullptr, reinterpret_cast<const UInt8 *>(text.data()),
                                                                static_cast<CFIndex>(text.size()),
                                                                kCFStringEncodingUTF8, false));
}

Any propertyListOf(const Value &value) {
  switch (value.type()) {
    case Value::Type::null:
      return {};
    case Value::Type::boolean:
      return Any::retained(value.boolValue() ? kCFBooleanTrue : kCFBooleanFalse);
    case Value::Type::signedInteger:
      return numberOf(value.integerValue());
    case Value::Type::unsignedInteger:
      if (value.unsignedIntegerValue() > std::numeric_limits<std::int64_t>::max()) return {};
      return numberOf(value.integerValue());
    case Value::Type::real: {
      const double real = value.doubleValue();
      return numberOf(kCFNumberDoubleType, &real);
    }
    case Value::Type::string:
      return any(stringOf(value.string()));
    case Value::Type::data:
      return Any::owned(::CFDataCreate(nullptr, value.data().data(), static_cast<CFIndex>(value.data().size())));
    case Value::Type::date:
      return Any::owned(::CFDateCreate(nullptr, value.date().secondsSince2001));
    case Value::Type::array:
      return arrayOf(value.array());
    case Value::Type::dictionary:
      return dictionaryWith(value.dictionary());
  }
  return {};
}

CFObject<CFDictionaryRef> dictionaryOf(const Value &value) {
  if (!value.isDictionary()) return {};
  return CFObject<CFDictionaryRef>::owned(static_cast<CFDictionaryRef>(dictionaryWith(value.dictionary()).release()));
}

std::optional<std::string> textOf(CFStringRef string) {
  if (string == nullptr) return std::nullopt;
  // Half a character of UTF-16 has no UTF-8.
  constexpr UInt8 kInstead = '?';
  const CFRange all{0, ::CFStringGetLength(string)};
  CFIndex size = 0;
  ::CFStringGetBytes(string, all, kCFStringEncodingUTF8, kInstead, false, nullptr, 0, &size);
  std::string text(static_cast<std::size_t>(size), '\0');
  ::CFStringGetBytes(string, all, kCFStringEncodingUTF8, kInstead, false, reinterpret_cast<UInt8 *>(text.data()), size,
                     &size);
  return text;
}

Value valueOf(CFTypeRef object) {
  if (object == nullptr) return {};
  const CFTypeID type = ::CFGetTypeID(object);
  if (type == ::CFStringGetTypeID()) return *textOf(static_cast<CFStringRef>(object));
  if (type == ::CFBooleanGetTypeID()) return ::CFBooleanGetValue(static_cast<CFBooleanRef>(object)) != 0;
  if (type == ::CFNumberGetTypeID()) return numberIn(static_cast<CFNumberRef>(object));
  if (type == ::CFDataGetTypeID()) return dataIn(static_cast<CFDataRef>(object));
  if (type == ::CFDateGetTypeID()) return Value::Date{::CFDateGetAbsoluteTime(static_cast<CFDateRef>(object))};
  if (type == ::CFArrayGetTypeID()) return arrayIn(static_cast<CFArrayRef>(object));
  if (type == ::CFDictionaryGetTypeID()) return dictionaryIn(static_cast<CFDictionaryRef>(object));
  return {};
}

}  // namespace platform::macos
