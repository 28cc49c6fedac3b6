#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "foundation/Assertion.h"
#include "foundation/FormatParser.h"
#include "foundation/Value.h"

using vpnctl::FormatArgument;
using vpnctl::FormatArgumentType;
using vpnctl::FormatPiece;
using vpnctl::Value;

namespace {

// A pointer that fits the conversion PIECE.
const void *pointerFor(const FormatPiece &piece) {
  static const Value object(Value::Array{"object", 1.5});
  if (piece.conversion == '@') return &object;
  if (piece.length == "l") return L"wide \u00e9";
  if (piece.conversion == 'S') return u"utf-16 \U0001f600";
  return "text";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char *>(data), size);
  const vpnctl::ParsedFormat format = vpnctl::parseFormat(text);

  // An argument that two conversions take as different pointers is null: nothing else would be right for both.
  std::map<std::size_t, const void *> pointers;
  for (const FormatPiece &piece : format.pieces) {
    if (piece.conversion == 0) continue;
    FOUNDATION_ASSERT(piece.argument < format.arguments.size());
    if (format.arguments[piece.argument] != FormatArgumentType::pointer) continue;
    const void *const pointer = pointerFor(piece);
    const auto [known, inserted] = pointers.emplace(piece.argument, pointer);
    if (!inserted && known->second != pointer) known->second = nullptr;
  }
  std::vector<FormatArgument> arguments;
  for (std::size_t i = 0; i < format.arguments.size(); ++i) {
    const auto number = static_cast<std::int64_t>(i);
    switch (format.arguments[i]) {
      case FormatArgumentType::integer:
        arguments.emplace_back(number * 37 - 100);
        break;
      case FormatArgumentType::longInteger:
        arguments.emplace_back(INT64_MIN + number);
        break;
      case FormatArgumentType::real:
        arguments.emplace_back(static_cast<double>(number) * 1e17 - 0.1);
        break;
      case FormatArgumentType::longReal:
        arguments.emplace_back(static_cast<long double>(number) / 3);
        break;
      case FormatArgumentType::pointer:
        arguments.emplace_back(pointers[i]);
        break;
    }
  }
  const std::string result = vpnctl::renderFormat(format, arguments);
  if (text.find('%') == std::string_view::npos) FOUNDATION_ASSERT(result == text);
  return 0;
}
