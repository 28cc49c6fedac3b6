// One line of JSON (RFC 8259), an object of texts, numbers and truth values in the order in which they were added. What
// is no UTF-8 becomes U+FFFD.
//
// Thread rule: as a plain value.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace companions {

class JSONLine {
 public:
  JSONLine &add(std::string_view name, std::string_view text);
  JSONLine &add(std::string_view name, std::int64_t number);
  // An empty text is left out.
  JSONLine &addIfAny(std::string_view name, std::string_view text);

  // With its newline.
  std::string line() const { return "{" + members_ + "}\n"; }

 private:
  void addName(std::string_view name);

  std::string members_;
};

// The moment in RFC 3339's form, in UTC, with milliseconds.
std::string timeStamp();

}  // namespace companions
