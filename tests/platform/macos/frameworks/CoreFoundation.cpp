#include <CoreFoundation/CoreFoundation.h>

#include <atomic>
#include <cmath>
#include <limits>

#include "foundation/Text.h"
#include "tests/platform/macos/frameworks/Behind.h"
#include "tests/platform/macos/frameworks/Frameworks.h"
#include "tests/platform/macos/frameworks/Objects.h"
#include "tests/platform/macos/frameworks/PropertyLists.h"
#include "tests/platform/macos/frameworks/RunLoops.h"

namespace frameworks {
namespace {

using vpnctl::Value;

enum Type : CFTypeID { kString = 1, kNumber, kBoolean, kData, kDate, kArray, kDictionary };

struct String : Object {
  explicit String(std::u16string text) : units(std::move(text)) {}
  CFTypeID typeID() const override { return kString; }
  std::string kind() const override { return "string \"" + utf8('?') + "\""; }

  // HALF stands for half a character; 0 ends the text there.
  std::string utf8(char half) const {
    std::string text;
    for (std::size_t i = 0; i < units.size(); ++i) {
      char32_t character = units[i];
      const bool high = character >= 0xd800 && character < 0xdc00;
      const bool paired = high && i + 1 < units.size() && units[i + 1] >= 0xdc00 && units[i + 1] < 0xe000;
      if (paired)
        character = 0x10000 + ((character - 0xd800) << 10) + (units[++i] - 0xdc00U);
      else if (character >= 0xd800 && character < 0xe000 && half == 0)
        return text;
      else if (character >= 0xd800 && character < 0xe000)
        character = static_cast<unsigned char>(half);
      vpnctl::appendCharacter(&text, character);
    }
    return text;
  }

  const std::u16string units;
};

struct Number : Object {
  explicit Number(std::int64_t number) : integer(number), real(static_cast<double>(number)) {}
  explicit Number(double number, bool past = false) : isReal(!past), fits(false), real(number) {}
  CFTypeID typeID() const override { return kNumber; }
  std::string kind() const override { return "number " + std::to_string(real); }

  const bool isReal = false;
  const bool fits = true;  // into 64 bits
  const std::int64_t integer = 0;
  const double real = 0;
};

struct TruthValue : Object {
  explicit TruthValue(bool isTrue) : value(isTrue) {}
  CFTypeID typeID() const override { return kBoolean; }
  std::string kind() const override { return value ? "true" : "false"; }
  const bool value;
};
TruthValue theTrue(true);
TruthValue theFalse(false);

struct Data : Object {
  Data(const UInt8 *start, CFIndex size) : bytes(start, start + size) {}
  CFTypeID typeID() const override { return kData; }
  std::string kind() const override { return "data"; }
  const std::vector<UInt8> bytes;
};

struct Date : Object {
  explicit Date(double seconds) : time(seconds) {}
  CFTypeID typeID() const override { return kDate; }
  std::string kind() const override { return "date"; }
  const double time;
};

struct Array : Object {
  ~Array() override {
    for (const void *const element : elements) release(element);
  }
  CFTypeID typeID() const override { return kArray; }
  std::string kind() const override { return "array"; }
  std::vector<const void *> elements;
};

struct Dictionary : Object {
  ~Dictionary() override {
    for (const auto &[key, value] : entries) {
      release(key);
      release(value);
    }
  }
  CFTypeID typeID() const override { return kDictionary; }
  std::string kind() const override { return "dictionary"; }
  std::vector<std::pair<const void *, const void *>> entries;
};

struct Other : Object {
  std::string kind() const override { return "object of no property list"; }
};

// Before anything can be done to them.
void addBooleans() {
  addStatic(theTrue);
  addStatic(theFalse);
}

Object &anyAt(CFTypeRef object) {
  addBooleans();
  Object &found = objectAt(object);
  if (!found.isCounted()) misuse("a " + found.kind() + " is taken for a CoreFoundation object");
  return found;
}

}  // namespace

std::string textIn(CFStringRef string) { return as<String>(string).utf8('?'); }

CFStringRef newString(const std::string &text) {
  return ::CFStringCreateWithBytes(nullptr, reinterpret_cast<const UInt8 *>(text.data()),
                                   static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false);
}

Value valueIn(CFTypeRef reference) {
  if (reference == nullptr) return {};
  addBooleans();
  const Object &object = objectAt(reference);
  if (const auto *const string = dynamic_cast<const String *>(&object)) return string->utf8('?');
  if (const auto *const boolean = dynamic_cast<const TruthValue *>(&object)) return boolean->value;
  if (const auto *const data = dynamic_cast<const Data *>(&object)) return data->bytes;
  if (const auto *const date = dynamic_cast<const Date *>(&object)) return Value::Date{date->time};
  if (const auto *const number = dynamic_cast<const Number *>(&object))
    return number->fits ? Value(number->integer) : Value(number->real);
  Value value;
  if (const auto *const array = dynamic_cast<const Array *>(&object)) {
    value = Value::Array{};
    for (const void *const element : array->elements) value.append(valueIn(element));
  }
  if (const auto *const dictionary = dynamic_cast<const Dictionary *>(&object)) {
    value = Value::Dictionary{};
    for (const auto &[key, entry] : dictionary->entries)
      value.set(textIn(static_cast<CFStringRef>(key)), valueIn(entry));
  }
  return value;
}

CFTypeRef newPropertyList(const Value &value) {
  switch (value.type()) {
    case Value::Type::null:
      return nullptr;
    case Value::Type::boolean: {
      const CFTypeRef boolean = value.boolValue() ? kCFBooleanTrue : kCFBooleanFalse;
      return ::CFRetain(boolean);
    }
    case Value::Type::signedInteger:
    case Value::Type::unsignedInteger:
      return make<CFNumberRef, Number>(value.integerValue());
    case Value::Type::real:
      return make<CFNumberRef, Number>(value.doubleValue());
    case Value::Type::string:
      return newString(value.string());
    case Value::Type::data:
      return make<CFDataRef, Data>(value.data().data(), static_cast<CFIndex>(value.data().size()));
    case Value::Type::date:
      return make<CFDateRef, Date>(value.date().secondsSince2001);
    case Value::Type::array: {
      auto array = std::make_unique<Array>();
      for (const Value &element : value.array()) array->elements.push_back(newPropertyList(element));
      return add(std::move(array));
    }
    case Value::Type::dictionary: {
      auto dictionary = std::make_unique<Dictionary>();
      for (const auto &[key, entry] : value.dictionary())
        dictionary->entries.emplace_back(newString(key), newPropertyList(entry));
      return add(std::move(dictionary));
    }
  }
  return nullptr;
}

CFStringRef newHalfCharacter() { return make<CFStringRef, String>(std::u16string{u'a', char16_t{0xd83d}, u'b'}); }
CFNumberRef newNumberPastTheRange() { return make<CFNumberRef, Number>(std::ldexp(1.0, 63), true); }
CFTypeRef newObjectOfNoPropertyList() { return make<CFTypeRef, Other>(); }

RunLoop &runLoopAt(CFRunLoopRef reference) { return as<RunLoop>(reference); }

}  // namespace frameworks

using namespace frameworks;

extern "C" {

const CFBooleanRef kCFBooleanTrue = reinterpret_cast<CFBooleanRef>(&theTrue);
const CFBooleanRef kCFBooleanFalse = reinterpret_cast<CFBooleanRef>(&theFalse);
const CFArrayCallBacks kCFTypeArrayCallBacks = {};
const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks = {};
const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks = {};

CFTypeRef CFRetain(CFTypeRef object) {
  anyAt(object);
  retain(object);
  return object;
}

void CFRelease(CFTypeRef object) {
  anyAt(object);
  release(object);
}

CFTypeID CFGetTypeID(CFTypeRef object) { return anyAt(object).typeID(); }
CFTypeID CFStringGetTypeID() { return kString; }
CFTypeID CFNumberGetTypeID() { return kNumber; }
CFTypeID CFBooleanGetTypeID() { return kBoolean; }
CFTypeID CFDataGetTypeID() { return kData; }
CFTypeID CFDateGetTypeID() { return kDate; }
CFTypeID CFArrayGetTypeID() { return kArray; }
CFTypeID CFDictionaryGetTypeID() { return kDictionary; }

CFStringRef CFStringCreateWithBytes(CFAllocatorRef, const UInt8 *bytes, CFIndex size, CFStringEncoding encoding,
                                    Boolean) {
  if (encoding != kCFStringEncodingUTF8) misuse("another encoding than UTF-8");
  const std::string_view text(reinterpret_cast<const char *>(bytes), static_cast<std::size_t>(size));
  if (!vpnctl::isValidUTF8(text)) return nullptr;
  std::u16string units;
  for (std::size_t i = 0; i < text.size();) {
    const char32_t character = *vpnctl::nextCharacter(text, &i);
    if (character >= 0x10000) {
      units += static_cast<char16_t>(0xd800 + ((character - 0x10000) >> 10));
      units += static_cast<char16_t>(0xdc00 + ((character - 0x10000) & 0x3ff));
    } else {
      units += static_cast<char16_t>(character);
    }
  }
  return make<CFStringRef, String>(std::move(units));
}

CFIndex CFStringGetLength(CFStringRef string) { return static_cast<CFIndex>(as<String>(string).units.size()); }

CFIndex CFStringGetBytes(CFStringRef string, CFRange range, CFStringEncoding encoding, UInt8 lossByte, Boolean,
                         UInt8 *buffer, CFIndex size, CFIndex *used) {
  const String &text = as<String>(string);
  if (encoding != kCFStringEncodingUTF8 || range.location != 0 || range.length != ::CFStringGetLength(string))
    misuse("a part of a string, or another encoding");
  const std::string bytes = text.utf8(static_cast<char>(lossByte));
  *used = static_cast<CFIndex>(bytes.size());
  if (buffer == nullptr) return range.length;
  if (size < *used) misuse("a buffer that is too small");
  bytes.copy(reinterpret_cast<char *>(buffer), bytes.size());
  return range.length;
}

CFNumberRef CFNumberCreate(CFAllocatorRef, CFNumberType type, const void *value) {
  if (type == kCFNumberDoubleType) return make<CFNumberRef, Number>(*static_cast<const double *>(value));
  if (type == kCFNumberSInt64Type) return make<CFNumberRef, Number>(*static_cast<const std::int64_t *>(value));
  if (type == kCFNumberSInt32Type || type == kCFNumberIntType)
    return make<CFNumberRef, Number>(std::int64_t{*static_cast<const int *>(value)});
  misuse("a number of another type");
}

Boolean CFNumberIsFloatType(CFNumberRef number) { return as<Number>(number).isReal; }

Boolean CFNumberGetValue(CFNumberRef reference, CFNumberType type, void *value) {
  const Number &number = as<Number>(reference);
  if (type == kCFNumberDoubleType) {
    *static_cast<double *>(value) = number.real;
    return true;
  }
  if (type != kCFNumberSInt64Type) misuse("a number of another type");
  // Also a real, as long as nothing of it is lost; one of many digits is cut.
  constexpr double kLarge = 1e18;
  const bool whole = number.isReal && std::trunc(number.real) == number.real && std::abs(number.real) < kLarge;
  *static_cast<std::int64_t *>(value) =
      number.fits ? number.integer : static_cast<std::int64_t>(std::fmod(number.real, kLarge));
  return number.fits || whole;
}

Boolean CFBooleanGetValue(CFBooleanRef boolean) {
  addBooleans();
  return as<TruthValue>(boolean).value;
}

CFDataRef CFDataCreate(CFAllocatorRef, const UInt8 *bytes, CFIndex size) { return make<CFDataRef, Data>(bytes, size); }
CFIndex CFDataGetLength(CFDataRef data) { return static_cast<CFIndex>(as<Data>(data).bytes.size()); }
const UInt8 *CFDataGetBytePtr(CFDataRef data) { return as<Data>(data).bytes.data(); }

CFDateRef CFDateCreate(CFAllocatorRef, CFAbsoluteTime time) { return make<CFDateRef, Date>(time); }
CFAbsoluteTime CFDateGetAbsoluteTime(CFDateRef date) { return as<Date>(date).time; }

CFMutableArrayRef CFArrayCreateMutable(CFAllocatorRef, CFIndex, const CFArrayCallBacks *callBacks) {
  if (callBacks != &kCFTypeArrayCallBacks) misuse("an array that does not count its elements");
  return static_cast<CFMutableArrayRef>(add(std::make_unique<Array>()));
}

void CFArrayAppendValue(CFMutableArrayRef array, const void *value) {
  as<Array>(array).elements.push_back(::CFRetain(value));
}

CFIndex CFArrayGetCount(CFArrayRef array) { return static_cast<CFIndex>(as<Array>(array).elements.size()); }

const void *CFArrayGetValueAtIndex(CFArrayRef array, CFIndex index) {
  const auto &elements = as<Array>(array).elements;
  if (index < 0 || index >= static_cast<CFIndex>(elements.size())) misuse("an index past an array's end");
  return elements[static_cast<std::size_t>(index)];
}

CFMutableDictionaryRef CFDictionaryCreateMutable(CFAllocatorRef, CFIndex, const CFDictionaryKeyCallBacks *keys,
                                                 const CFDictionaryValueCallBacks *values) {
  if (keys != &kCFTypeDictionaryKeyCallBacks || values != &kCFTypeDictionaryValueCallBacks)
    misuse("a dictionary that does not count its entries");
  return static_cast<CFMutableDictionaryRef>(add(std::make_unique<Dictionary>()));
}

void CFDictionarySetValue(CFMutableDictionaryRef dictionary, const void *key, const void *value) {
  as<String>(key);
  as<Dictionary>(dictionary).entries.emplace_back(::CFRetain(key), ::CFRetain(value));
}

CFIndex CFDictionaryGetCount(CFDictionaryRef dictionary) {
  return static_cast<CFIndex>(as<Dictionary>(dictionary).entries.size());
}

void CFDictionaryGetKeysAndValues(CFDictionaryRef dictionary, const void **keys, const void **values) {
  for (const auto &[key, value] : as<Dictionary>(dictionary).entries) {
    *keys++ = key;
    *values++ = value;
  }
}

CFRunLoopRef CFRunLoopGetCurrent() {
  // There for good: the thread's own count.
  thread_local const auto loop = [] {
    auto *const made = new RunLoop(behind::CFRunLoopGetCurrent());
    addStatic(*made);
    return made;
  }();
  return reinterpret_cast<CFRunLoopRef>(static_cast<Object *>(loop));
}

void CFRunLoopRun() {
  RunLoop &loop = runLoopAt(::CFRunLoopGetCurrent());
  loop.running = true;
  behind::CFRunLoopRun();
  loop.running = false;
}

// A stop of a loop that does not run is forgotten.
void CFRunLoopStop(CFRunLoopRef reference) {
  const RunLoop &loop = runLoopAt(reference);
  if (loop.running) return behind::CFRunLoopStop(loop.loop);
  behind::fake::FakePlatform::instance().enter("CFRunLoopStop",
                                               reference == ::CFRunLoopGetCurrent() ? "current" : "other");
}

}  // extern "C"
