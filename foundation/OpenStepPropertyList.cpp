#include "foundation/OpenStepPropertyList.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <utility>

#include "foundation/NeXTSTEPEncoding.h"
#include "foundation/PropertyList.h"
#include "foundation/Text.h"

namespace vpnctl {

namespace {

int hexDigit(char character) {
  if (character >= '0' && character <= '9') return character - '0';
  if (character >= 'a' && character <= 'f') return character - 'a' + 10;
  if (character >= 'A' && character <= 'F') return character - 'A' + 10;
  return -1;
}

bool isOctalDigit(char character) { return character >= '0' && character <= '7'; }

bool isBlank(char character) { return character == ' ' || (character >= '\t' && character <= '\r'); }

// What a string without quotes may be made of.
bool isBare(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
         (character >= '0' && character <= '9') || std::string_view("_$/:.-").find(character) != std::string_view::npos;
}

bool isHighSurrogate(char32_t unit) { return unit >= 0xd800 && unit <= 0xdbff; }
bool isLowSurrogate(char32_t unit) { return unit >= 0xdc00 && unit <= 0xdfff; }
char32_t joined(char32_t high, char32_t low) { return 0x10000 + ((high - 0xd800) << 10) + (low - 0xdc00); }

Error errorAt(std::string_view name, std::size_t line, std::string_view reason) {
  return {.domain = std::string(kPropertyListErrorDomain),
          .code = 1,
          .message = std::string(name) + ": line " + std::to_string(line) + ": " + std::string(reason)};
}

// Reads what BYTES, well-formed UTF-8, say. The first problem is kept, and everything above it gives up.
class Reader {
 public:
  Reader(std::string_view bytes, std::string_view name) : bytes_(bytes), name_(name) {}

  Result<Value> read() {
    std::optional<Value> value = topLevel();
    if (value && skipBlanks()) fail("something follows the value");
    if (error_) return *error_;
    return std::move(*value);
  }

 private:
  std::nullopt_t fail(std::string_view reason) { return failAt(next_, reason); }

  std::nullopt_t failAt(std::size_t position, std::string_view reason) {
    if (error_) return std::nullopt;
    std::size_t line = 1;
    for (const char character : bytes_.substr(0, position)) line += character == '\n' ? 1 : 0;
    error_ = errorAt(name_, line, reason);
    return std::nullopt;
  }

  // Moves to the next character that says something; false at the end, or after a failure.
  bool skipBlanks() {
    while (!error_ && next_ < bytes_.size()) {
      if (isBlank(bytes_[next_])) {
        ++next_;
      } else if (startsWith("\u2028") || startsWith("\u2029")) {
        next_ += 3;
      } else if (startsWith("//")) {
        next_ = std::min(bytes_.find_first_of("\n\r", next_), bytes_.size());
      } else if (startsWith("/*")) {
        const std::size_t end = bytes_.find("*/", next_ + 2);
        if (end == std::string_view::npos) {
          fail("a comment that does not end");
          return false;
        }
        next_ = end + 2;
      } else {
        return true;
      }
    }
    return false;
  }

  bool startsWith(std::string_view text) const { return bytes_.substr(next_, text.size()) == text; }

  bool accept(char character) {
    if (!skipBlanks() || bytes_[next_] != character) return false;
    ++next_;
    return true;
  }

  std::optional<Value> topLevel() {
    if (!skipBlanks()) return error_ ? std::optional<Value>() : Value(Value::Dictionary());
    const char first = bytes_[next_];
    if (first == '{' || first == '(' || first == '<') return value(0);
    // One string, or the first key of entries without braces.
    const std::size_t start = next_;
    std::optional<std::string> text = string();
    if (!text) return std::nullopt;
    if (!skipBlanks()) return error_ ? std::optional<Value>() : Value(std::move(*text));
    next_ = start;
    return entries(0);
  }

  std::optional<Value> value(int depth) {
    if (!skipBlanks()) return fail("a value is missing");
    switch (bytes_[next_]) {
      case '{':
        return dictionary(depth);
      case '(':
        return array(depth);
      case '<':
        return data();
      default:
        break;
    }
    std::optional<std::string> text = string();
    return text ? std::optional<Value>(std::move(*text)) : std::nullopt;
  }

  bool enter(int depth) {
    if (depth < kPropertyListMaximumDepth) return true;
    fail("nested more than " + std::to_string(kPropertyListMaximumDepth) + " levels deep");
    return false;
  }

  std::optional<Value> array(int depth) {
    const std::size_t start = next_++;
    if (!enter(depth)) return std::nullopt;
    Value::Array elements;
    while (!accept(')')) {  // also behind a last comma
      if (!skipBlanks()) return failAt(start, "an array that does not end");
      std::optional<Value> element = value(depth + 1);
      if (!element) return std::nullopt;
      elements.push_back(std::move(*element));
      if (!accept(',') && !(skipBlanks() && bytes_[next_] == ')')) return fail("\",\" or \")\" is missing");
    }
    return Value(std::move(elements));
  }

  std::optional<Value> dictionary(int depth) {
    const std::size_t start = next_++;
    if (!enter(depth)) return std::nullopt;
    std::optional<Value> result = entries(depth);
    if (result && !accept('}')) return failAt(start, "a dictionary that does not end");
    return result;
  }

  // Entries up to a closing brace or the end. `key;` stands for `key = key;`.
  std::optional<Value> entries(int depth) {
    Value::Dictionary result;
    while (skipBlanks() && bytes_[next_] != '}') {
      const std::size_t start = next_;
      std::optional<std::string> key = string();
      if (!key) return std::nullopt;
      std::optional<Value> entry = accept('=') ? value(depth + 1) : Value(*key);
      if (!entry) return std::nullopt;
      if (!accept(';')) return fail("\";\" is missing");
      if (!result.emplace(*key, std::move(*entry)).second) return failAt(start, "duplicate key \"" + *key + "\"");
    }
    if (error_) return std::nullopt;
    return Value(std::move(result));
  }

  std::optional<Value> data() {
    const std::size_t start = next_++;
    Value::Data result;
    int half = -1;
    for (; next_ < bytes_.size() && bytes_[next_] != '>'; ++next_) {
      if (isBlank(bytes_[next_])) continue;
      const int digit = hexDigit(bytes_[next_]);
      if (digit < 0) return fail("a character in data that is no hexadecimal digit");
      if (half >= 0) result.push_back(static_cast<std::uint8_t>(half << 4 | digit));
      half = half >= 0 ? -1 : digit;
    }
    if (next_ == bytes_.size()) return failAt(start, "data that does not end");
    if (half >= 0) return fail("data with half a byte");
    ++next_;
    return Value(std::move(result));
  }

  std::optional<std::string> string() {
    if (bytes_[next_] == '"' || bytes_[next_] == '\'') return quotedString();
    const std::size_t start = next_;
    while (next_ < bytes_.size() && isBare(bytes_[next_])) ++next_;
    if (next_ == start) return fail("a character that starts no value");
    return std::string(bytes_.substr(start, next_ - start));
  }

  std::optional<std::string> quotedString() {
    const std::size_t start = next_;
    const char quote = bytes_[next_++];
    std::string result;
    while (next_ < bytes_.size()) {
      const char character = bytes_[next_++];
      if (character == quote) return result;
      if (character != '\\')
        result += character;
      else if (next_ < bytes_.size())
        escape(&result);
    }
    return failAt(start, "a string that does not end");
  }

  // What stands behind a backslash.
  void escape(std::string *result) {
    constexpr std::string_view kLetters = "abfnrtv";
    constexpr std::string_view kControls = "\a\b\f\n\r\t\v";
    const char character = bytes_[next_];
    if (isOctalDigit(character)) return appendCharacter(result, octal());
    ++next_;
    if (character == 'U') return appendCharacter(result, unicode());
    const std::size_t control = kLetters.find(character);
    // A backslash before anything else, a line's end among it, only takes that as it is.
    *result += control != std::string_view::npos ? kControls[control] : character;
  }

  char32_t octal() {
    unsigned code = 0;
    for (int i = 0; i < 3 && next_ < bytes_.size() && isOctalDigit(bytes_[next_]); ++i)
      code = code * 8 + static_cast<unsigned>(bytes_[next_++] - '0');
    return characterFromNeXTSTEP(static_cast<std::uint8_t>(code));
  }

  char32_t unicode() {
    const char32_t unit = hexUnit();
    if (!isHighSurrogate(unit) || !startsWith("\\U")) return unit;
    const std::size_t behind = next_;
    next_ += 2;
    if (const char32_t low = hexUnit(); isLowSurrogate(low)) return joined(unit, low);
    next_ = behind;
    return unit;
  }

  char32_t hexUnit() {
    char32_t unit = 0;
    for (int i = 0; i < 4 && next_ < bytes_.size() && hexDigit(bytes_[next_]) >= 0; ++i)
      unit = unit << 4 | static_cast<char32_t>(hexDigit(bytes_[next_++]));
    return unit;
  }

  std::string_view bytes_;
  std::string_view name_;
  std::size_t next_ = 0;
  std::optional<Error> error_;
};

// BYTES without their byte order mark, in UTF-8; none for half a character.
std::optional<std::string> utf8FromUTF16(std::string_view bytes, bool bigEndian) {
  if (bytes.size() % 2 != 0) return std::nullopt;
  const auto unit = [&](std::size_t index) {
    const auto first = static_cast<unsigned char>(bytes[index]);
    const auto second = static_cast<unsigned char>(bytes[index + 1]);
    return static_cast<char32_t>(bigEndian ? first << 8 | second : second << 8 | first);
  };
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); i += 2) {
    char32_t character = unit(i);
    if (isHighSurrogate(character) && i + 2 < bytes.size() && isLowSurrogate(unit(i + 2)))
      character = joined(character, unit(i += 2));
    else if (isHighSurrogate(character) || isLowSurrogate(character))
      return std::nullopt;
    appendCharacter(&text, character);
  }
  return text;
}

// The text in UTF-8, whatever BYTES are in; none when they are nothing that we know.
std::optional<std::string> decoded(std::string_view bytes) {
  if (bytes.starts_with("\xfe\xff")) return utf8FromUTF16(bytes.substr(2), true);
  if (bytes.starts_with("\xff\xfe")) return utf8FromUTF16(bytes.substr(2), false);
  if (bytes.starts_with("\xef\xbb\xbf")) bytes.remove_prefix(3);
  if (!isValidUTF8(bytes)) return std::nullopt;
  return std::string(bytes);
}

// True for a tag, a declaration or a comment of XML; data of the text form starts with the same character.
bool startsLikeXML(std::string_view text) {
  std::size_t index = 0;
  while (index < text.size() && isBlank(text[index])) ++index;
  if (index == text.size() || text[index] != '<') return false;
  while (++index < text.size() && (isBlank(text[index]) || hexDigit(text[index]) >= 0)) continue;
  return index < text.size() && text[index] != '>';
}

}  // namespace

Result<Value> propertyListFromOpenStep(std::string_view bytes, std::string_view name) {
  if (bytes.empty()) return errorAt(name, 1, "no property list in an empty file");
  const std::optional<std::string> text = decoded(bytes);
  if (!text) return errorAt(name, 1, "the text is not in Unicode");
  return Reader(*text, name).read();
}

Result<Value> propertyListOfAnyForm(std::string_view bytes, std::string_view name) {
  const std::optional<std::string> text =
      bytes.size() > kPropertyListMaximumSize || bytes.starts_with("bplist00") ? std::nullopt : decoded(bytes);
  // XML may be in an encoding of its own, which its declaration names.
  if (!text || startsLikeXML(*text)) return propertyListFromData(bytes, name);
  return propertyListFromOpenStep(bytes, name);
}

Result<Value> propertyListOfAnyFormFromFile(const std::string &path) {
  const Result<std::string> bytes = propertyListBytesFromFile(path);
  if (!bytes) return bytes.error();
  return propertyListOfAnyForm(*bytes, path);
}

}  // namespace vpnctl
