#include "foundation/FormatParser.h"

#include <algorithm>
#include <utility>

namespace vpnctl {

namespace {

constexpr std::size_t kMaximumArguments = 256;

class Parser {
 public:
  explicit Parser(std::string_view format) : format_(format) {}

  ParsedFormat parse() {
    while (next_ < format_.size()) {
      const std::size_t percent = std::min(format_.find('%', next_), format_.size());
      addText(next_, percent);
      next_ = percent;
      if (percent == format_.size()) break;
      const std::size_t unnumbered = unnumbered_;
      const std::size_t known = types_.size();
      if (!conversion()) {
        // What is no conversion takes nothing, and what follows it is read on its own.
        types_.resize(known);
        unnumbered_ = unnumbered;
        next_ = percent + 1;
        addText(percent, next_);
      }
    }
    // A gap in the numbering is skipped as an int.
    for (const std::optional<FormatArgumentType> &type : types_)
      result_.arguments.push_back(type.value_or(FormatArgumentType::integer));
    return std::move(result_);
  }

 private:
  void addText(std::size_t start, std::size_t end) {
    if (start == end) return;
    if (!result_.pieces.empty() && result_.pieces.back().conversion == 0) {
      std::string_view &text = result_.pieces.back().source;
      if (text.data() + text.size() == format_.data() + start) {
        text = {text.data(), text.size() + end - start};
        return;
      }
    }
    result_.pieces.push_back({.source = format_.substr(start, end - start)});
  }

  bool at(char character) const { return next_ < format_.size() && format_[next_] == character; }

  bool accept(char character) {
    if (!at(character)) return false;
    ++next_;
    return true;
  }

  // The digits that stand here; none when there are none or they say too much.
  std::optional<int> digits() {
    const std::size_t start = next_;
    int number = 0;
    while (next_ < format_.size() && format_[next_] >= '0' && format_[next_] <= '9') {
      number = number * 10 + (format_[next_++] - '0');
      if (number > kFormatMaximumNumber) return std::nullopt;
    }
    if (next_ == start) return std::nullopt;
    return number;
  }

  // "N$", as an index; what is there stays when it is something else.
  std::optional<std::size_t> position() {
    const std::size_t start = next_;
    const std::optional<int> number = digits();
    if (number && *number >= 1 && accept('$')) return static_cast<std::size_t>(*number - 1);
    next_ = start;
    return std::nullopt;
  }

  // Reserves the argument for TYPE: the numbered one, or the next. False when it is taken as another type already, or
  // too far away.
  bool take(std::optional<std::size_t> numbered, FormatArgumentType type, std::size_t *argument) {
    *argument = numbered ? *numbered : unnumbered_++;
    if (*argument >= kMaximumArguments) return false;
    if (types_.size() <= *argument) types_.resize(*argument + 1);
    std::optional<FormatArgumentType> &known = types_[*argument];
    if (known && *known != type) return false;
    known = type;
    return true;
  }

  bool number(std::optional<FormatNumber> *result) {
    if (accept('*')) {
      std::size_t argument = 0;
      if (!take(position(), FormatArgumentType::integer, &argument)) return false;
      *result = FormatNumber{.argument = argument};
      return true;
    }
    if (next_ < format_.size() && format_[next_] >= '0' && format_[next_] <= '9') {
      const std::optional<int> literal = digits();
      if (!literal) return false;
      *result = FormatNumber{.number = *literal};
    }
    return true;
  }

  std::string length() {
    if (accept('h')) return accept('h') ? "hh" : "h";
    if (accept('l')) return accept('l') ? "ll" : "l";
    if (accept('q') || accept('j') || accept('z') || accept('t')) return "ll";
    return accept('L') ? "L" : "";
  }

  static std::optional<FormatArgumentType> typeFor(char conversion, std::string_view length) {
    switch (conversion) {
      case 'd':
      case 'i':
      case 'o':
      case 'u':
      case 'x':
      case 'X':
        if (length == "L") return std::nullopt;
        return length.starts_with('l') ? FormatArgumentType::longInteger : FormatArgumentType::integer;
      case 'a':
      case 'A':
      case 'e':
      case 'E':
      case 'f':
      case 'F':
      case 'g':
      case 'G':
        if (length == "L") return FormatArgumentType::longReal;
        return length.empty() || length == "l" ? std::optional(FormatArgumentType::real) : std::nullopt;
      case 'c':
      case 'C':
        return length.empty() || length == "l" ? std::optional(FormatArgumentType::integer) : std::nullopt;
      case 's':
      case 'S':
        return length.empty() || length == "l" ? std::optional(FormatArgumentType::pointer) : std::nullopt;
      case 'p':
      case '@':
        return length.empty() ? std::optional(FormatArgumentType::pointer) : std::nullopt;
      default:
        return std::nullopt;
    }
  }

  // The conversion that starts at the percent sign here. False when there is none.
  bool conversion() {
    const std::size_t start = next_++;
    if (accept('%')) {
      result_.pieces.push_back({.source = format_.substr(next_ - 1, 1)});
      return true;
    }
    FormatPiece piece;
    const std::optional<std::size_t> numbered = position();
    for (; next_ < format_.size() && std::string_view("-+ #0'").find(format_[next_]) != std::string_view::npos;
         ++next_) {
      // The "C" locale groups no thousands.
      if (format_[next_] != '\'' && piece.flags.find(format_[next_]) == std::string::npos)
        piece.flags += format_[next_];
    }
    if (!number(&piece.width)) return false;
    if (accept('.')) {
      if (!number(&piece.precision)) return false;
      if (!piece.precision) piece.precision = FormatNumber{};
    }
    piece.length = length();
    if (next_ == format_.size()) return false;
    piece.conversion = format_[next_++];
    const std::optional<FormatArgumentType> type = typeFor(piece.conversion, piece.length);
    if (!type || !take(numbered, *type, &piece.argument)) return false;
    piece.source = format_.substr(start, next_ - start);
    result_.pieces.push_back(std::move(piece));
    return true;
  }

  std::string_view format_;
  std::size_t next_ = 0;
  std::size_t unnumbered_ = 0;
  std::vector<std::optional<FormatArgumentType>> types_;
  ParsedFormat result_;
};

}  // namespace

ParsedFormat parseFormat(std::string_view format) { return Parser(format).parse(); }

}  // namespace vpnctl
