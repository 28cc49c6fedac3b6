#include "foundation/Value.h"

#include <cmath>
#include <limits>
#include <new>
#include <stdexcept>
#include <utility>

#include "foundation/CLocale.h"

namespace vpnctl {

namespace {

// Takes the containers that die with a container, and lets them die one after the other: if each took its own along, a
// deep value would need as deep a stack.
class Grave {
 public:
  Grave() : isOutermost_(outermost_ == nullptr) {
    if (isOutermost_) outermost_ = &values_;
  }
  Grave(const Grave &) = delete;
  Grave &operator=(const Grave &) = delete;
  ~Grave() {
    if (!isOutermost_) return;
    while (!values_.empty()) {
      const Value next = std::move(values_.back());
      values_.pop_back();
    }
    outermost_ = nullptr;
  }

  void take(Value *value) {
    if (!value->isArray() && !value->isDictionary()) return;
    try {
      outermost_->push_back(std::move(*value));
    } catch (const std::bad_alloc &) {
      // Then it dies where it is.
    }
  }

 private:
  static thread_local Value::Array *outermost_;  // the thread's, while a container dies

  bool isOutermost_;
  Value::Array values_;
};

thread_local Value::Array *Grave::outermost_ = nullptr;

struct DictionaryBox {
  explicit DictionaryBox(Value::Dictionary initial) : entries(std::move(initial)) {}
  DictionaryBox(const DictionaryBox &) = delete;
  DictionaryBox &operator=(const DictionaryBox &) = delete;
  ~DictionaryBox() {
    Grave grave;
    for (auto &[key, element] : entries) grave.take(&element);
  }

  Value::Dictionary entries;
};

std::shared_ptr<const Value::Dictionary> boxed(Value::Dictionary entries) {
  const auto box = std::make_shared<DictionaryBox>(std::move(entries));
  return {box, &box->entries};
}

}  // namespace

struct Value::ArrayBox {
  ArrayBox(Array initial, bool mayChange) : elements(std::move(initial)), isMutable(mayChange) {}
  ArrayBox(const ArrayBox &) = delete;
  ArrayBox &operator=(const ArrayBox &) = delete;
  ~ArrayBox() {
    Grave grave;
    for (Value &element : elements) grave.take(&element);
  }
  bool operator==(const ArrayBox &other) const { return elements == other.elements; }

  Array elements;
  bool isMutable;
};

namespace {

constexpr double kTwoTo63 = 9223372036854775808.0;

template <class T>
const T &emptyInstance() {
  static const T &empty = *new T;
  return empty;
}

void requireObject(const Value &value) {
  if (value.isNull()) throw std::invalid_argument("a container cannot hold a null object");
}

// The nearest number of an integer type: truncated, saturating, 0 for what is no number.
template <class Integer>
Integer saturated(double number) {
  constexpr Integer kHalf = std::numeric_limits<Integer>::max() / 2 + 1;
  constexpr double kEnd = static_cast<double>(kHalf) * 2;  // one past the largest, which a double may not hold
  if (std::isnan(number)) return 0;
  if (number >= kEnd) return std::numeric_limits<Integer>::max();
  if (number <= static_cast<double>(std::numeric_limits<Integer>::min())) return std::numeric_limits<Integer>::min();
  return static_cast<Integer>(number);
}

std::string_view withoutLeadingBlanks(std::string_view text) {
  const std::size_t start = text.find_first_not_of(" \t\n\v\f\r");
  return start == std::string_view::npos ? std::string_view() : text.substr(start);
}

bool isDigit(char character) { return character >= '0' && character <= '9'; }

// Sign and magnitude of the decimal number that TEXT starts with behind blanks; what follows it does not matter.
struct ScannedInteger {
  bool negative = false;
  std::uint64_t magnitude = 0;  // saturated
};

ScannedInteger scanInteger(std::string_view text) {
  constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();
  ScannedInteger result;
  text = withoutLeadingBlanks(text);
  if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
    result.negative = text.front() == '-';
    text.remove_prefix(1);
  }
  for (; !text.empty() && isDigit(text.front()); text.remove_prefix(1)) {
    const auto digit = static_cast<std::uint64_t>(text.front() - '0');
    if (result.magnitude > (kLargest - digit) / 10) return {result.negative, kLargest};
    result.magnitude = result.magnitude * 10 + digit;
  }
  return result;
}

std::int64_t signedInteger(ScannedInteger scanned) {
  constexpr auto kLargest = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (scanned.magnitude > kLargest)
    return scanned.negative ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
  const auto magnitude = static_cast<std::int64_t>(scanned.magnitude);
  return scanned.negative ? -magnitude : magnitude;
}

bool scanBoolean(std::string_view text) {
  text = withoutLeadingBlanks(text);
  if (!text.empty() && (text.front() == '-' || text.front() == '+')) text.remove_prefix(1);
  const std::size_t first = text.find_first_not_of('0');
  return first != std::string_view::npos &&
         std::string_view("YyTt123456789").find(text[first]) != std::string_view::npos;
}

bool equal(std::int64_t left, std::int64_t right) { return left == right; }
bool equal(std::int64_t left, std::uint64_t right) { return std::cmp_equal(left, right); }
bool equal(std::uint64_t left, std::int64_t right) { return std::cmp_equal(left, right); }
bool equal(std::uint64_t left, std::uint64_t right) { return left == right; }
// Two NaNs are the same number, as for NSNumber: otherwise a value would not equal its own copy.
bool equal(double left, double right) { return left == right || (std::isnan(left) && std::isnan(right)); }
// Exact: an integer that the double format cannot hold equals no double.
bool equal(double left, std::int64_t right) {
  return left >= -kTwoTo63 && left < kTwoTo63 && left == std::trunc(left) && static_cast<std::int64_t>(left) == right;
}
bool equal(double left, std::uint64_t right) {
  return left >= 0 && left < kTwoTo63 * 2 && left == std::trunc(left) && static_cast<std::uint64_t>(left) == right;
}
bool equal(std::int64_t left, double right) { return equal(right, left); }
bool equal(std::uint64_t left, double right) { return equal(right, left); }

std::int64_t comparable(bool boolean) { return boolean ? 1 : 0; }
auto comparable(auto number) { return number; }

template <class T>
concept Number =
    std::same_as<T, bool> || std::same_as<T, std::int64_t> || std::same_as<T, std::uint64_t> || std::same_as<T, double>;

// Whether POINTER is the only owner. The owner that let go last may have been on another thread, with reading that must
// come before our writing: letting go of one more copy waits for it, use_count() alone does not.
template <class T>
bool isOursAlone(const std::shared_ptr<T> &pointer) {
  if (pointer.use_count() != 1) return false;
  std::shared_ptr<T> another = pointer;
  another.reset();
  return true;
}

template <class T>
constexpr bool kIsPointer = false;
template <class T>
constexpr bool kIsPointer<std::shared_ptr<T>> = true;

}  // namespace

Value::Value(std::string text) : state_(std::make_shared<const std::string>(std::move(text))) {}
Value::Value(Data data) : state_(std::make_shared<const Data>(std::move(data))) {}
Value::Value(Array array) : state_(std::make_shared<ArrayBox>(std::move(array), false)) {
  for (const Value &element : this->array()) requireObject(element);
}
Value::Value(Dictionary dictionary) : state_(boxed(std::move(dictionary))) {
  for (const auto &[key, element] : this->dictionary()) requireObject(element);
}

Value Value::mutableArray(Array array) {
  for (const Value &element : array) requireObject(element);
  Value value;
  value.state_ = std::make_shared<ArrayBox>(std::move(array), true);
  return value;
}

Value::Type Value::type() const { return static_cast<Type>(state_.index()); }

bool Value::isNumber() const { return type() >= Type::boolean && type() <= Type::real; }

bool Value::isMutableArray() const {
  const auto *box = std::get_if<std::shared_ptr<ArrayBox>>(&state_);
  return box != nullptr && (*box)->isMutable;
}

const std::string &Value::string() const {
  const auto *text = std::get_if<std::shared_ptr<const std::string>>(&state_);
  return text != nullptr ? **text : emptyInstance<std::string>();
}

const Value::Data &Value::data() const {
  const auto *data = std::get_if<std::shared_ptr<const Data>>(&state_);
  return data != nullptr ? **data : emptyInstance<Data>();
}

const Value::Array &Value::array() const {
  const auto *box = std::get_if<std::shared_ptr<ArrayBox>>(&state_);
  return box != nullptr ? (*box)->elements : emptyInstance<Array>();
}

const Value::Dictionary &Value::dictionary() const {
  const auto *dictionary = std::get_if<std::shared_ptr<const Dictionary>>(&state_);
  return dictionary != nullptr ? **dictionary : emptyInstance<Dictionary>();
}

Value::Date Value::date() const {
  const auto *date = std::get_if<Date>(&state_);
  return date != nullptr ? *date : Date();
}

const Value *Value::find(std::string_view key) const {
  const Dictionary &entries = dictionary();
  const auto entry = entries.find(key);
  return entry != entries.end() ? &entry->second : nullptr;
}

const Value &Value::operator[](std::string_view key) const {
  const Value *entry = find(key);
  return entry != nullptr ? *entry : emptyInstance<Value>();
}

void Value::set(std::string key, Value value) {
  requireObject(value);
  Dictionary changed = dictionary();
  changed.insert_or_assign(std::move(key), std::move(value));
  state_ = boxed(std::move(changed));
}

void Value::remove(std::string_view key) {
  if (find(key) == nullptr) return;
  Dictionary changed = dictionary();
  changed.erase(changed.find(key));
  state_ = boxed(std::move(changed));
}

void Value::append(Value element) {
  requireObject(element);
  if (!isNull() && !isArray()) throw std::invalid_argument("only an array can be appended to");
  // Collecting element by element must not copy what is there each time: nobody else sees a box that is ours alone.
  if (auto *box = std::get_if<std::shared_ptr<ArrayBox>>(&state_); box != nullptr && isOursAlone(*box)) {
    (*box)->elements.push_back(std::move(element));
    return;
  }
  auto changed = std::make_shared<ArrayBox>(array(), isMutableArray());
  changed->elements.push_back(std::move(element));
  state_ = std::move(changed);
}

bool Value::boolValue() const {
  switch (type()) {
    case Type::boolean:
      return std::get<bool>(state_);
    case Type::signedInteger:
      return std::get<std::int64_t>(state_) != 0;
    case Type::unsignedInteger:
      return std::get<std::uint64_t>(state_) != 0;
    case Type::real:
      return std::get<double>(state_) != 0;
    case Type::string:
      return scanBoolean(string());
    case Type::null:
    case Type::data:
    case Type::date:
    case Type::array:
    case Type::dictionary:
      break;
  }
  return false;
}

std::int64_t Value::integerValue() const {
  switch (type()) {
    case Type::boolean:
      return comparable(std::get<bool>(state_));
    case Type::signedInteger:
      return std::get<std::int64_t>(state_);
    case Type::unsignedInteger:
      return static_cast<std::int64_t>(std::get<std::uint64_t>(state_));
    case Type::real:
      return saturated<std::int64_t>(std::get<double>(state_));
    case Type::string:
      return signedInteger(scanInteger(string()));
    case Type::null:
    case Type::data:
    case Type::date:
    case Type::array:
    case Type::dictionary:
      break;
  }
  return 0;
}

std::int32_t Value::intValue() const {
  if (type() == Type::real) return saturated<std::int32_t>(std::get<double>(state_));
  const std::int64_t integer = integerValue();
  if (!isString()) return static_cast<std::int32_t>(integer);
  if (integer > std::numeric_limits<std::int32_t>::max()) return std::numeric_limits<std::int32_t>::max();
  if (integer < std::numeric_limits<std::int32_t>::min()) return std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(integer);
}

std::uint64_t Value::unsignedIntegerValue() const {
  if (const auto *real = std::get_if<double>(&state_); real != nullptr && *real >= 0)
    return saturated<std::uint64_t>(*real);
  if (isString()) {
    if (const ScannedInteger scanned = scanInteger(string()); !scanned.negative) return scanned.magnitude;
  }
  return static_cast<std::uint64_t>(integerValue());
}

double Value::doubleValue() const {
  switch (type()) {
    case Type::boolean:
      return std::get<bool>(state_) ? 1 : 0;
    case Type::signedInteger:
      return static_cast<double>(std::get<std::int64_t>(state_));
    case Type::unsignedInteger:
      return static_cast<double>(std::get<std::uint64_t>(state_));
    case Type::real:
      return std::get<double>(state_);
    case Type::string: {
      std::size_t length = 0;
      return scanReal(withoutLeadingBlanks(string()), &length);
    }
    case Type::null:
    case Type::data:
    case Type::date:
    case Type::array:
    case Type::dictionary:
      break;
  }
  return 0;
}

bool Value::operator==(const Value &other) const {
  return std::visit(
      []<class Left, class Right>(const Left &left, const Right &right) {
        if constexpr (Number<Left> && Number<Right>)
          return equal(comparable(left), comparable(right));
        else if constexpr (!std::same_as<Left, Right>)
          return false;
        else if constexpr (kIsPointer<Left>)
          return left == right || *left == *right;
        else
          return left == right;
      },
      state_, other.state_);
}

}  // namespace vpnctl
