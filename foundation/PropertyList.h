// Property lists: reading XML and binary, writing XML. Strict: what cannot be read in full (trailing garbage, a number
// out of range, an unknown element, nesting past a limit, a duplicate key) is an error with its line, never a guess.
//
// Usual sequence: propertyListFromData(bytes), look, change, xmlPropertyList(value). Thread rule: none of these keeps
// state.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "foundation/Result.h"
#include "foundation/Value.h"

namespace vpnctl {

inline constexpr std::string_view kPropertyListErrorDomain = "PropertyList";
inline constexpr int kPropertyListMaximumDepth = 64;
inline constexpr std::size_t kPropertyListMaximumSize = std::size_t{64} << 20;  // bytes

// How much a property list may hold to be read. A binary one is held to all of them after its references have been
// unfolded: a few of its bytes may say the same thing a million times.
struct PropertyListLimits {
  std::size_t bytes = kPropertyListMaximumSize;
  int depth = kPropertyListMaximumDepth;                // levels of containers
  std::size_t elements = kPropertyListMaximumSize / 8;  // values and keys; no XML of that size has more
};

// The value of a property list in either form, told apart by "bplist00". NAME (a path, or what the bytes are) starts
// the error's message, which carries the line for XML and the byte offset for binary.
Result<Value> propertyListFromData(std::string_view bytes, std::string_view name,
                                   const PropertyListLimits &limits = {});

// Reads a whole file; the error is POSIX's when it cannot be opened or read, also when it is larger than the limit
// (EFBIG) or not a regular file.
Result<Value> propertyListFromFile(const std::string &path);

// What may be read. A pipe is waited for, until somebody opens and closes its other end.
enum class FileKinds { regular, regularAndPipes };

// The bytes alone, with the same errors.
Result<std::string> propertyListBytesFromFile(const std::string &path, FileKinds kinds = FileKinds::regular);

// The XML form: header, DOCTYPE, one tab per level, keys sorted, `<dict/>` and `<array/>` when empty, reals as %.17g,
// base64 lines, dates in UTC, only < > & escaped, a final newline. A null Value, or text that XML cannot carry (control
// characters, bytes that are not UTF-8), is an error; so is what would have more than MAXIMUM bytes, at most
// kPropertyListMaximumSize, of which no more is ever made. What has been written can be read again.
Result<std::string> xmlPropertyList(const Value &value, std::size_t maximum = kPropertyListMaximumSize);

}  // namespace vpnctl
