// Text helpers: strings are UTF-8 in std::string; lengths that the outside world counts are UTF-16 code units.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/Secret.h"

namespace vpnctl {

// The character that starts at *INDEX of TEXT, with *INDEX moved behind it; none, and *INDEX left alone, where no
// well-formed character starts. *INDEX is less than the size.
std::optional<char32_t> nextCharacter(std::string_view text, std::size_t *index);

// Appends CHARACTER in UTF-8. A surrogate, or what lies past U+10FFFF, becomes U+FFFD.
void appendCharacter(std::string *text, char32_t character);

// True when TEXT is well-formed UTF-8 (no overlong forms, no surrogates, nothing past U+10FFFF).
bool isValidUTF8(std::string_view text);

// Number of UTF-16 code units of well-formed UTF-8: one per character, two beyond the basic plane. A byte that is part
// of no well-formed character counts as one.
std::size_t utf16Length(std::string_view text);

// The text of a C string; none when it is not well-formed UTF-8. A null pointer throws std::invalid_argument, which
// nobody in the tool catches: a missing setting ends the process.
std::optional<std::string> stringWithUTF8String(const char *text);

// The same for text that must not be seen.
std::optional<Secret> secretWithUTF8String(const char *text);

// What a container or a property list takes: the text itself. None throws std::invalid_argument, as putting a null
// object into a container does; nobody in the tool catches it.
const std::string &element(const std::optional<std::string> &text);

}  // namespace vpnctl
