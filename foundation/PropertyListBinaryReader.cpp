#include "foundation/PropertyListBinaryReader.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "foundation/Text.h"

namespace vpnctl {

namespace {

constexpr std::uint64_t kMagicSize = 8;
constexpr std::uint64_t kTrailerSize = 32;
// Of the tree that references unfold to, and so of the object table as well.
constexpr std::uint64_t kMaximumNodes = std::uint64_t{1} << 20;

// The upper half of a marker byte.
enum Kind : std::uint8_t { kSingle, kInteger, kReal, kDate, kData, kASCII, kUTF16, kArray = 0xa, kDictionary = 0xd };

class Reader {
 public:
  Reader(std::string_view bytes, std::string_view name, const PropertyListLimits &limits)
      : bytes_(bytes),
        name_(name),
        limits_(limits),
        maximumNodes_(std::min<std::uint64_t>(limits.elements, kMaximumNodes)) {}

  Result<Value> read() {
    if (readTrailer()) {
      if (const Object *top = object(top_, 0); top != nullptr) return top->value;
    }
    return *error_;
  }

 private:
  // An object once it has been read, and what it unfolds to. Sharing costs no memory here, but whoever walks or writes
  // the value later meets every reference anew.
  struct Object {
    enum class State { unread, reading, read };
    State state = State::unread;
    Value value;
    int height = 0;  // levels of containers
    std::uint64_t nodes = 1;
    std::uint64_t size = 0;  // bytes of text and data
  };

  // Where reading is, and how far it may go.
  struct Cursor {
    std::uint64_t position = 0;
    std::uint64_t end = 0;
    std::uint64_t left() const { return end - position; }
  };

  std::nullptr_t fail(std::uint64_t position, std::string reason) {
    if (!error_) {
      error_ = Error{.domain = std::string(kPropertyListErrorDomain),
                     .code = 1,
                     .message = name_ + ": byte " + std::to_string(position) + ": " + std::move(reason)};
    }
    return nullptr;
  }

  // A big-endian number of SIZE (1 to 8) bytes, known to be there.
  std::uint64_t number(std::uint64_t position, std::uint64_t size) const {
    std::uint64_t result = 0;
    for (std::uint64_t i = 0; i < size; ++i) result = result << 8 | static_cast<unsigned char>(bytes_[position + i]);
    return result;
  }

  bool readTrailer() {
    if (bytes_.size() < kMagicSize + 1 + 1 + kTrailerSize) {
      fail(bytes_.size(), "too short for a binary property list");
      return false;
    }
    const std::uint64_t trailer = bytes_.size() - kTrailerSize;
    offsetSize_ = number(trailer + 6, 1);
    referenceSize_ = number(trailer + 7, 1);
    const std::uint64_t count = number(trailer + 8, 8);
    top_ = number(trailer + 16, 8);
    table_ = number(trailer + 24, 8);
    if (offsetSize_ < 1 || offsetSize_ > 8 || referenceSize_ < 1 || referenceSize_ > 8)
      fail(trailer + 6, "offsets and references must be 1 to 8 bytes wide");
    else if (count < 1 || count > maximumNodes_)
      fail(trailer + 8, "the number of objects must be 1 to " + std::to_string(maximumNodes_));
    else if (top_ >= count)
      fail(trailer + 16, "the top object does not exist");
    else if (table_ <= kMagicSize || table_ >= trailer || trailer - table_ != count * offsetSize_)
      fail(trailer + 24, "the offset table does not fill the space before the trailer");
    else
      objects_.resize(count);
    return !error_;
  }

  // The object of that number, read on first use. None, and the error is set, when it cannot be read or goes too deep
  // below LEVEL.
  const Object *object(std::uint64_t reference, int level) {
    Object &object = objects_[reference];
    const std::uint64_t entry = table_ + reference * offsetSize_;
    const std::uint64_t position = number(entry, offsetSize_);
    if (object.state == Object::State::reading) return fail(position, "an object contains itself");
    if (object.state == Object::State::unread) {
      if (position < kMagicSize || position >= table_) return fail(entry, "an offset points outside the objects");
      object.state = Object::State::reading;
      if (!readObject({position, table_}, level, &object)) return nullptr;
      object.state = Object::State::read;
    }
    if (level + object.height > limits_.depth)
      return fail(position, "nested more than " + std::to_string(limits_.depth) + " levels deep");
    if (object.nodes > maximumNodes_ || object.size > limits_.bytes)
      return fail(position, "shared objects unfold to too large a value");
    return &object;
  }

  // CURSOR stands on the marker, and at least that one byte is there.
  bool readObject(Cursor cursor, int level, Object *object) {
    const std::uint64_t start = cursor.position;
    const std::uint64_t marker = number(cursor.position++, 1);
    const std::uint64_t low = marker & 0xf;
    switch (static_cast<Kind>(marker >> 4)) {
      case kSingle:
        if (low != 8 && low != 9) break;
        object->value = low == 9;
        return true;
      case kInteger:
        return readInteger(cursor, low, &object->value);
      case kReal:
        if (low != 2 && low != 3) break;
        if (const auto real = floating(&cursor, std::uint64_t{1} << low)) object->value = *real;
        return !error_;
      case kDate:
        if (low != 3) break;
        return readDate(cursor, &object->value);
      case kData:
      case kASCII:
      case kUTF16:
        return readBytes(static_cast<Kind>(marker >> 4), cursor, low, object);
      case kArray:
        return readArray(cursor, low, level, object);
      case kDictionary:
        return readDictionary(cursor, low, level, object);
    }
    fail(start, "unknown kind of object");
    return false;
  }

  bool readInteger(Cursor cursor, std::uint64_t power, Value *value) {
    const std::uint64_t size = std::uint64_t{1} << power;
    if (power > 4 || cursor.left() < size) {
      fail(cursor.position, power > 4 ? "an integer of more than 16 bytes" : "an integer is cut off");
    } else if (size == 16) {
      if (number(cursor.position, 8) != 0) fail(cursor.position, "an integer out of range");
      *value = integer(number(cursor.position + 8, 8));
    } else if (size == 8) {
      *value = static_cast<std::int64_t>(number(cursor.position, 8));
    } else {
      *value = integer(number(cursor.position, size));
    }
    return !error_;
  }

  // As in the XML form: signed wherever that is enough.
  static Value integer(std::uint64_t number) {
    if (std::cmp_less_equal(number, std::numeric_limits<std::int64_t>::max())) return static_cast<std::int64_t>(number);
    return number;
  }

  std::optional<double> floating(Cursor *cursor, std::uint64_t size) {
    if (cursor->left() < size) {
      fail(cursor->position, "a number is cut off");
      return std::nullopt;
    }
    const std::uint64_t bits = number(cursor->position, size);
    if (size == 4) return static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(bits)));
    return std::bit_cast<double>(bits);
  }

  bool readDate(Cursor cursor, Value *value) {
    const std::optional<double> seconds = floating(&cursor, 8);
    if (!seconds) return false;
    if (!std::isfinite(*seconds)) fail(cursor.position, "a date that is no number");
    *value = Value::Date{*seconds};
    return !error_;
  }

  // How many elements follow: the marker's lower half or, if that is 15, an integer object. None when there is no room
  // for them.
  std::optional<std::uint64_t> count(Cursor *cursor, std::uint64_t low, std::uint64_t elementSize) {
    std::uint64_t result = low;
    const std::uint64_t start = cursor->position;
    if (low == 0xf) {
      if (cursor->left() < 1) return fail(start, "an object is cut off"), std::nullopt;
      const std::uint64_t marker = number(cursor->position++, 1);
      const std::uint64_t size = std::uint64_t{1} << (marker & 0x3);
      if ((marker & 0xfc) != 0x10 || cursor->left() < size) return fail(start, "not a valid count"), std::nullopt;
      result = number(cursor->position, size);
      cursor->position += size;
    }
    if (result > cursor->left() / elementSize) return fail(start, "an object is cut off"), std::nullopt;
    return result;
  }

  bool readBytes(Kind kind, Cursor cursor, std::uint64_t low, Object *object) {
    const std::uint64_t unit = kind == kUTF16 ? 2 : 1;
    const std::optional<std::uint64_t> units = count(&cursor, low, unit);
    if (!units) return false;
    const std::string_view raw = bytes_.substr(cursor.position, *units * unit);
    object->size = raw.size();
    if (kind == kData) {
      object->value = Value::Data(raw.begin(), raw.end());
    } else if (kind == kUTF16) {
      return readUTF16(cursor.position, *units, &object->value);
    } else {
      for (const char character : raw)
        if (static_cast<unsigned char>(character) > 0x7f) fail(cursor.position, "text that is not ASCII");
      object->value = raw;
    }
    return !error_;
  }

  bool readUTF16(std::uint64_t position, std::uint64_t units, Value *value) {
    std::string text;
    text.reserve(units);
    for (std::uint64_t i = 0; i < units; ++i) {
      const std::uint64_t unit = number(position + 2 * i, 2);
      const bool high = unit >= 0xd800 && unit <= 0xdbff;
      const std::uint64_t next = high && i + 1 < units ? number(position + 2 * i + 2, 2) : 0;
      if (unit < 0xd800 || unit > 0xdfff) {
        appendCharacter(&text, static_cast<char32_t>(unit));
      } else if (next >= 0xdc00 && next <= 0xdfff) {
        appendCharacter(&text, static_cast<char32_t>(0x10000 + ((unit - 0xd800) << 10) + (next - 0xdc00)));
        ++i;
      } else {
        fail(position + 2 * i, "half of a surrogate pair");
        return false;
      }
    }
    *value = std::move(text);
    return true;
  }

  // The element that the reference at POSITION names, counted into CONTAINER.
  const Object *element(std::uint64_t position, int level, Object *container) {
    const std::uint64_t reference = number(position, referenceSize_);
    if (reference >= objects_.size()) return fail(position, "a reference to an object that does not exist");
    const Object *element = object(reference, level);
    if (element == nullptr) return nullptr;
    container->height = std::max(container->height, element->height + 1);
    // Cannot overflow: each part is within its limit, and there are fewer parts than bytes.
    container->nodes += element->nodes;
    container->size += element->size;
    return element;
  }

  bool mayNest(std::uint64_t position, int level, Object *container) {
    container->height = 1;
    if (level < limits_.depth) return true;
    fail(position, "nested more than " + std::to_string(limits_.depth) + " levels deep");
    return false;
  }

  bool readArray(Cursor cursor, std::uint64_t low, int level, Object *object) {
    const std::optional<std::uint64_t> length = count(&cursor, low, referenceSize_);
    if (!length || !mayNest(cursor.position, level, object)) return false;
    Value::Array elements;
    elements.reserve(*length);
    for (std::uint64_t i = 0; i < *length; ++i) {
      const Object *each = element(cursor.position + i * referenceSize_, level + 1, object);
      if (each == nullptr) return false;
      elements.push_back(each->value);
    }
    object->value = std::move(elements);
    return true;
  }

  bool readDictionary(Cursor cursor, std::uint64_t low, int level, Object *object) {
    const std::optional<std::uint64_t> length = count(&cursor, low, 2 * referenceSize_);
    if (!length || !mayNest(cursor.position, level, object)) return false;
    Value::Dictionary entries;
    for (std::uint64_t i = 0; i < *length; ++i) {
      const std::uint64_t position = cursor.position + i * referenceSize_;
      const Object *key = element(position, level + 1, object);
      if (key == nullptr) return false;
      if (!key->value.isString()) return fail(position, "a key that is not text"), false;
      const Object *each = element(position + *length * referenceSize_, level + 1, object);
      if (each == nullptr) return false;
      if (!entries.emplace(key->value.string(), each->value).second)
        return fail(position, "duplicate key \"" + key->value.string() + "\""), false;
    }
    object->value = std::move(entries);
    return true;
  }

  std::string_view bytes_;
  std::string name_;
  const PropertyListLimits limits_;
  const std::uint64_t maximumNodes_;
  std::uint64_t offsetSize_ = 0;
  std::uint64_t referenceSize_ = 0;
  std::uint64_t top_ = 0;
  std::uint64_t table_ = 0;  // where the offsets start, and the objects end
  std::vector<Object> objects_;
  std::optional<Error> error_;
};

}  // namespace

Result<Value> propertyListFromBinary(std::string_view bytes, std::string_view name, const PropertyListLimits &limits) {
  return Reader(bytes, name, limits).read();
}

}  // namespace vpnctl
