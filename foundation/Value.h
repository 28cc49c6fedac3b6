// Value: what an "object" is in settings and property lists. Null, boolean, signed or unsigned 64-bit integer, double,
// string, data, date, array or dictionary.
//
// A Value is a value: copying shares the representation and is cheap, changing one never changes another. Thread rule:
// as a plain value; two copies may be used on two threads.

#pragma once

#include <concepts>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace vpnctl {

class Value {
 public:
  enum class Type { null, boolean, signedInteger, unsignedInteger, real, string, data, date, array, dictionary };
  using Data = std::vector<std::uint8_t>;
  using Array = std::vector<Value>;
  using Dictionary = std::map<std::string, Value, std::less<>>;
  struct Date {
    double secondsSince2001 = 0;  // UTC; fractions are kept
    bool operator==(const Date &) const = default;
  };

  Value() = default;  // null
  Value(bool boolean) : state_(boolean) {}
  Value(std::signed_integral auto integer) : state_(static_cast<std::int64_t>(integer)) {}
  Value(std::unsigned_integral auto integer) : state_(static_cast<std::uint64_t>(integer)) {}
  Value(double real) : state_(real) {}
  Value(std::string text);
  Value(std::string_view text) : Value(std::string(text)) {}
  Value(const char *text) : Value(std::string(text)) {}  // text is not null
  Value(const void *) = delete;                          // a pointer is no boolean
  Value(Data data);
  Value(Date date) : state_(date) {}
  Value(Array array);
  Value(Dictionary dictionary);
  // An array that says it may be appended to; it differs from a plain one in isMutableArray() alone.
  static Value mutableArray(Array array);

  Type type() const;
  bool isNull() const { return type() == Type::null; }
  bool isNumber() const;  // boolean, integer or real
  bool isString() const { return type() == Type::string; }
  bool isArray() const { return type() == Type::array; }
  bool isMutableArray() const;
  bool isDictionary() const { return type() == Type::dictionary; }

  // Views of the contents, valid while this Value lives unchanged; an empty one when the type is another.
  const std::string &string() const;
  const Data &data() const;
  const Array &array() const;
  const Dictionary &dictionary() const;
  Date date() const;

  // The entry of a dictionary; null (a pointer to nothing) when there is none or this is not a dictionary.
  const Value *find(std::string_view key) const;
  // The entry, or a null Value.
  const Value &operator[](std::string_view key) const;
  // Changes this value into a dictionary if it is not one, then sets the entry. A null Value throws
  // std::invalid_argument, as a null object in a container does.
  void set(std::string key, Value value);
  // Removes the entry, if any.
  void remove(std::string_view key);
  // Appends to an array (a null Value becomes one); a null ELEMENT throws std::invalid_argument.
  void append(Value element);

  // Conversions as Foundation's: numbers convert with truncation; text is scanned (leading blanks, sign, digits;
  // for a boolean blanks, sign, zeros, and then Y, y, T, t or a digit 1-9 for true); everything else is false or 0.
  // Integers saturate at the ends of the range.
  bool boolValue() const;
  std::int64_t integerValue() const;
  std::int32_t intValue() const;  // an integer is cut to its low 32 bits, text and reals saturate
  std::uint64_t unsignedIntegerValue() const;
  double doubleValue() const;
  // Text for people: numbers in plain decimal, doubles as %0.16g, booleans 1 and 0, containers over several lines as
  // Foundation prints them. Null is "(null)".
  std::string description() const;

  // Numbers compare by value whatever their type (true == 1 == 1.0); a number never equals a text.
  bool operator==(const Value &other) const;

 private:
  struct ArrayBox;
  using State =
      std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, std::shared_ptr<const std::string>,
                   std::shared_ptr<const Data>, Date, std::shared_ptr<ArrayBox>, std::shared_ptr<const Dictionary>>;
  State state_;
};

}  // namespace vpnctl
