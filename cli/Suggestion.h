// "Did you mean ...?": the known name that somebody probably meant who typed another one.
//
// Usual sequence:
//
//   GB::Suggestion suggestion(typed);
//   for (const std::string_view name : names) suggestion.offer(name);
//   if (!suggestion.name().empty()) ...
//
// All texts are views, and must live as long as it. A name counts as meant where it differs in few bytes, for its
// length, or begins with what was typed; of several the one that differs least, then the first. What is longer than 64
// bytes is no slip of the finger. Thread rule: as a plain value. It neither fails nor blocks.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace GB {

class Suggestion {
 public:
  explicit Suggestion(std::string_view typed);

  void offer(std::string_view name);
  // Empty: nothing that was offered is like it.
  std::string_view name() const { return best_; }
  // "; did you mean PREFIXname?", or nothing.
  std::string sentence(std::string_view prefix) const;

 private:
  std::string_view typed_;
  std::string_view best_;
  std::size_t distance_;
};

}  // namespace GB
