#include <cmath>

#include "foundation/Base64.h"
#include "foundation/CLocale.h"
#include "foundation/CalendarDate.h"
#include "foundation/PropertyList.h"
#include "foundation/Text.h"

namespace vpnctl {

namespace {

constexpr std::string_view kHeader =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";

std::string realText(double number) {
  if (std::isinf(number)) return number > 0 ? "+infinity" : "-infinity";
  return shortestReal(number, 17);
}

constexpr std::string_view kEnd = "</plist>\n";

// Writes one value after the other, until one cannot be written: the reason is kept, and nothing more is made.
class Writer {
 public:
  explicit Writer(std::size_t maximum) : maximum_(maximum) {}

  void write(const Value &value, int level) {
    if (!reason_.empty()) return;
    switch (value.type()) {
      case Value::Type::null:
        fail("a null value");
        return;
      case Value::Type::boolean:
        line(level, value.boolValue() ? "<true/>" : "<false/>");
        return;
      case Value::Type::signedInteger:
      case Value::Type::unsignedInteger:
        line(level, "<integer>" + value.description() + "</integer>");
        return;
      case Value::Type::real:
        line(level, "<real>" + realText(value.doubleValue()) + "</real>");
        return;
      case Value::Type::string:
        line(level, "<string>" + escaped(value.string()) + "</string>");
        return;
      case Value::Type::data:
        data(value.data(), level);
        return;
      case Value::Type::date:
        date(value.date(), level);
        return;
      case Value::Type::array:
        array(value.array(), level);
        return;
      case Value::Type::dictionary:
        dictionary(value.dictionary(), level);
        return;
    }
  }

  Result<std::string> finish() {
    if (!reason_.empty()) {
      return Error{.domain = std::string(kPropertyListErrorDomain),
                   .code = 2,
                   .message = "write property list: " + reason_ + " cannot be written"};
    }
    text_ += kEnd;
    return std::move(text_);
  }

 private:
  void fail(std::string reason) {
    if (reason_.empty()) reason_ = std::move(reason);
  }

  void line(int level, std::string_view content) {
    if (!reason_.empty()) return;
    // Before it is made: shared values and indentation may let a small value become a very large text.
    if (text_.size() + static_cast<std::size_t>(level) + content.size() + 1 + kEnd.size() > maximum_)
      return fail("what would have more than " + std::to_string(maximum_) + " bytes");
    text_.append(static_cast<std::size_t>(level), '\t');
    text_ += content;
    text_ += '\n';
  }

  std::string escaped(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t index = 0; index < text.size();) {
      const std::size_t start = index;
      const std::optional<char32_t> character = nextCharacter(text, &index);
      if (!character) {
        fail("text that is not UTF-8");
        return {};
      }
      // A carriage return would be read back as a line feed.
      const bool control = *character < 0x20 && *character != '\t' && *character != '\n';
      if (control || *character == 0xfffe || *character == 0xffff) {
        fail("text with control characters");
        return {};
      }
      switch (*character) {
        case '<':
          result += "&lt;";
          break;
        case '>':
          result += "&gt;";
          break;
        case '&':
          result += "&amp;";
          break;
        default:
          result += text.substr(start, index - start);
          break;
      }
    }
    return result;
  }

  void data(const Value::Data &bytes, int level) {
    // Indentation counts against a line's 76 characters, but never leaves fewer than 12.
    constexpr int kLineLength = 76;
    constexpr int kMaximumIndent = 8;
    const int indent = std::min(level, kMaximumIndent);
    const auto length = static_cast<std::size_t>(kLineLength - 8 * indent);
    line(level, "<data>");
    const std::string encoded = base64Encoded(bytes);
    for (std::size_t start = 0; start < encoded.size(); start += length)
      line(indent, std::string_view(encoded).substr(start, length));
    line(level, "</data>");
  }

  void date(Value::Date date, int level) {
    const std::optional<std::string> text = propertyListDateText(date);
    if (!text) return fail("a date outside the years 0 to 9999");
    line(level, "<date>" + *text + "</date>");
  }

  void array(const Value::Array &elements, int level) {
    if (!enter(level)) return;
    if (elements.empty()) return line(level, "<array/>");
    line(level, "<array>");
    for (const Value &element : elements) write(element, level + 1);
    line(level, "</array>");
  }

  void dictionary(const Value::Dictionary &entries, int level) {
    if (!enter(level)) return;
    if (entries.empty()) return line(level, "<dict/>");
    line(level, "<dict>");
    for (const auto &[key, value] : entries) {
      line(level + 1, "<key>" + escaped(key) + "</key>");
      write(value, level + 1);
    }
    line(level, "</dict>");
  }

  // What is nested deeper than our own reader goes must not get into a file.
  bool enter(int level) {
    if (level < kPropertyListMaximumDepth) return true;
    fail("a value nested more than " + std::to_string(kPropertyListMaximumDepth) + " levels deep");
    return false;
  }

  const std::size_t maximum_;
  std::string text_{kHeader};
  std::string reason_;
};

}  // namespace

Result<std::string> xmlPropertyList(const Value &value, std::size_t maximum) {
  Writer writer(maximum);
  writer.write(value, 0);
  return writer.finish();
}

}  // namespace vpnctl
