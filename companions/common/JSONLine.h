// One line of JSON (RFC 8259), an object of texts, lists of texts, numbers and truth values in the order in which they
// were added. What is no UTF-8 becomes U+FFFD.
//
// Thread rule: as a plain value.

#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace companions {

class JSONLine {
 public:
  JSONLine &add(std::string_view name, std::string_view text);
  JSONLine &add(std::string_view name, std::int64_t number);
  JSONLine &add(std::string_view name, const std::vector<std::string> &texts);
  // Not add(): a literal would sooner become a truth value than a text.
  JSONLine &addTruth(std::string_view name, bool truth);
  // An empty text is left out.
  JSONLine &addIfAny(std::string_view name, std::string_view text);

  // With its newline.
  std::string line() const { return "{" + members_ + "}\n"; }

 private:
  void addName(std::string_view name);

  std::string members_;
};

// Now, or that moment, in RFC 3339's form, in UTC, with milliseconds.
std::string timeStamp();
std::string timeStamp(std::chrono::system_clock::time_point moment);

}  // namespace companions
