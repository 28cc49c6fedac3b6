#include "foundation/PropertyListXMLReader.h"

#include <expat.h>

#include <charconv>
#include <limits>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "foundation/Base64.h"
#include "foundation/CLocale.h"
#include "foundation/CalendarDate.h"

namespace vpnctl {

namespace {

constexpr std::string_view kBlanks = " \t\r\n";

std::string_view trimmed(std::string_view text) {
  const std::size_t start = text.find_first_not_of(kBlanks);
  if (start == std::string_view::npos) return {};
  return text.substr(start, text.find_last_not_of(kBlanks) - start + 1);
}

std::string lowercase(std::string_view text) {
  std::string result(text);
  for (char &character : result)
    if (character >= 'A' && character <= 'Z') character = static_cast<char>(character - 'A' + 'a');
  return result;
}

// From -2^63 to 2^64-1; signed wherever that is enough.
std::optional<Value> integerFromText(std::string_view text) {
  text = trimmed(text);
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  int base = 10;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    base = 16;
    text.remove_prefix(2);
  }
  if (text.empty()) return std::nullopt;
  std::uint64_t magnitude = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;

  constexpr auto kLargest = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (negative) {
    if (magnitude > kLargest + 1) return std::nullopt;
    return Value(static_cast<std::int64_t>(0 - magnitude));
  }
  if (magnitude > kLargest) return Value(magnitude);
  return Value(static_cast<std::int64_t>(magnitude));
}

std::optional<Value> realFromText(std::string_view text) {
  text = trimmed(text);
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  const std::string word = lowercase(text);
  if (word == "nan") return Value(std::numeric_limits<double>::quiet_NaN());
  if (word == "inf" || word == "+inf" || word == "infinity" || word == "+infinity") return Value(kInfinity);
  if (word == "-inf" || word == "-infinity") return Value(-kInfinity);
  std::size_t length = 0;
  const double number = scanReal(text, &length);
  if (length == 0 || length != text.size() || number == kInfinity || number == -kInfinity) return std::nullopt;
  return Value(number);
}

// Follows expat's events. The first problem stops the parser; nothing after it counts.
class Reader {
 public:
  Reader(std::string_view bytes, std::string_view name, const PropertyListLimits &limits)
      : bytes_(bytes), name_(name), limits_(limits), parser_(XML_ParserCreate(nullptr)) {
    XML_SetUserData(parser_.get(), this);
    XML_SetElementHandler(
        parser_.get(),
        [](void *reader, const XML_Char *element, const XML_Char **attributes) {
          static_cast<Reader *>(reader)->elementStarts(element, attributes);
        },
        [](void *reader, const XML_Char *element) { static_cast<Reader *>(reader)->elementEnds(element); });
    XML_SetCharacterDataHandler(parser_.get(), [](void *reader, const XML_Char *text, int length) {
      static_cast<Reader *>(reader)->characters({text, static_cast<std::size_t>(length)});
    });
    // Entities of one's own are how a small file becomes a huge one; no property list has any.
    XML_SetStartDoctypeDeclHandler(
        parser_.get(), [](void *reader, const XML_Char *, const XML_Char *, const XML_Char *, int internalSubset) {
          if (internalSubset != 0) static_cast<Reader *>(reader)->fail("a DOCTYPE with declarations is not accepted");
        });
    // Without this, expat drops an entity that the unread external DTD might declare, and text would be lost in
    // silence.
    XML_SetSkippedEntityHandler(parser_.get(), [](void *reader, const XML_Char *entity, int) {
      static_cast<Reader *>(reader)->fail("unknown entity \"" + std::string(entity) + "\"");
    });
  }

  Result<Value> read() {
    if (XML_Parse(parser_.get(), bytes_.data(), static_cast<int>(bytes_.size()), XML_TRUE) == XML_STATUS_ERROR) {
      const XML_Error code = XML_GetErrorCode(parser_.get());
      if (code == XML_ERROR_NO_MEMORY) throw std::bad_alloc();
      fail(XML_ErrorString(code));
    }
    if (error_) return *error_;
    return std::move(*result_);
  }

 private:
  struct Container {
    bool isDictionary = false;
    Value::Array elements = {};
    Value::Dictionary entries = {};
    std::optional<std::string> key = {};  // read, its value not yet
  };

  void fail(std::string reason) {
    if (error_) return;
    error_ = Error{.domain = std::string(kPropertyListErrorDomain),
                   .code = 1,
                   .message = name_ + ": line " + std::to_string(XML_GetCurrentLineNumber(parser_.get())) + ": " +
                              std::move(reason)};
    XML_StopParser(parser_.get(), XML_FALSE);
  }

  static bool isLeaf(std::string_view element) {
    return element == "key" || element == "string" || element == "integer" || element == "real" || element == "true" ||
           element == "false" || element == "date" || element == "data";
  }

  void elementStarts(std::string_view element, const XML_Char **attributes) {
    if (error_) return;
    if (!insidePropertyList_) {
      if (element != "plist") return fail("<" + std::string(element) + "> where <plist> is expected");
      insidePropertyList_ = true;
      return checkVersion(attributes);
    }
    if (attributes[0] != nullptr) return fail("unexpected attribute \"" + std::string(attributes[0]) + "\"");
    if (!leaf_.empty()) return fail("<" + std::string(element) + "> inside <" + leaf_ + ">");
    const bool isContainer = element == "dict" || element == "array";
    if (!isContainer && !isLeaf(element)) return fail("unknown element <" + std::string(element) + ">");
    if (++elements_ > limits_.elements) return fail("more than " + std::to_string(limits_.elements) + " elements");
    if (!placeFor(element)) return;
    if (!isContainer) {
      leaf_ = element;
      text_.clear();
    } else if (containers_.size() == static_cast<std::size_t>(limits_.depth)) {
      fail("nested more than " + std::to_string(limits_.depth) + " levels deep");
    } else {
      containers_.push_back({.isDictionary = element == "dict"});
    }
  }

  void checkVersion(const XML_Char **attributes) {
    for (; attributes[0] != nullptr; attributes += 2) {
      if (std::string_view(attributes[0]) != "version")
        return fail("unexpected attribute \"" + std::string(attributes[0]) + "\"");
      const std::string_view version = attributes[1];
      if (version != "1.0" && version != "0.9") return fail("unknown version \"" + std::string(version) + "\"");
    }
  }

  // Whether ELEMENT may stand here; fails if not.
  bool placeFor(std::string_view element) {
    if (containers_.empty()) {
      if (element == "key")
        fail("<key> outside a <dict>");
      else if (result_)
        fail("more than one value");
    } else if (const Container &container = containers_.back(); !container.isDictionary) {
      if (element == "key") fail("<key> inside an <array>");
    } else if (element == "key") {
      if (container.key) fail("the key \"" + *container.key + "\" has no value");
    } else if (!container.key) {
      fail("<" + std::string(element) + "> where a <key> is expected");
    }
    return !error_;
  }

  void characters(std::string_view text) {
    if (error_) return;
    if (!leaf_.empty())
      text_ += text;
    else if (!trimmed(text).empty())
      fail("text between elements");
  }

  void elementEnds(std::string_view element) {
    if (error_) return;
    if (!leaf_.empty()) {
      leaf_.clear();
      return leafEnds(element);
    }
    if (element == "plist") {
      if (!result_) fail("no value");
      return;
    }
    Container container = std::move(containers_.back());
    containers_.pop_back();
    if (container.key) return fail("the key \"" + *container.key + "\" has no value");
    if (container.isDictionary)
      add(std::move(container.entries));
    else
      add(std::move(container.elements));
  }

  void leafEnds(std::string_view element) {
    if (element == "key") return keyEnds();
    if (element == "string") return add(std::move(text_));
    if (element == "true" || element == "false")
      return text_.empty() ? add(element == "true") : fail("text inside <" + std::string(element) + ">");
    std::optional<Value> value;
    if (element == "integer") {
      value = integerFromText(text_);
    } else if (element == "real") {
      value = realFromText(text_);
    } else if (element == "date") {
      if (const std::optional<Value::Date> date = dateFromPropertyListText(text_)) value = *date;
    } else if (std::optional<Value::Data> data = base64Decoded(text_)) {
      value = std::move(*data);
    }
    if (!value) return fail("not a valid <" + std::string(element) + ">: \"" + text_.substr(0, 64) + "\"");
    add(std::move(*value));
  }

  void keyEnds() {
    Container &container = containers_.back();
    if (container.entries.contains(text_)) return fail("duplicate key \"" + text_ + "\"");
    container.key = std::move(text_);
  }

  void add(Value value) {
    if (containers_.empty()) {
      result_ = std::move(value);
    } else if (Container &container = containers_.back(); container.isDictionary) {
      container.entries.emplace(std::move(*container.key), std::move(value));
      container.key.reset();
    } else {
      container.elements.push_back(std::move(value));
    }
  }

  struct FreeParser {
    void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
  };

  std::string_view bytes_;
  std::string name_;
  const PropertyListLimits limits_;
  std::unique_ptr<std::remove_pointer_t<XML_Parser>, FreeParser> parser_;
  bool insidePropertyList_ = false;
  std::size_t elements_ = 0;
  std::vector<Container> containers_;
  std::string leaf_;  // the open element that holds text; empty when there is none
  std::string text_;
  std::optional<Value> result_;
  std::optional<Error> error_;
};

}  // namespace

Result<Value> propertyListFromXML(std::string_view bytes, std::string_view name, const PropertyListLimits &limits) {
  return Reader(bytes, name, limits).read();
}

}  // namespace vpnctl
