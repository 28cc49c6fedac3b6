// One entry of an options helper's list, and the word of flags that says what it is.
//
// Thread rule: as plain values.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "cli/GBOptionRequirement.h"

namespace GB {

// The bits that exclude are negative, so that flags 0 is a whole option: it takes a value, is on the command line, in
// the values table and in help. Other bits are kept and ignored.
enum GBOptionFlags : std::uint64_t {
  GBOptionFlagRequirementMask = 0x3,  // a GBOptionRequirement
  GBOptionFlagSeparator = 0x8,        // a line between options, made of the description
  GBOptionFlagGroup = 0x10,           // opens a group named by the long name
  GBOptionFlagNoCmdLine = 0x20,       // not for the parser
  GBOptionFlagNoPrint = 0x40,         // not in the values table
  GBOptionFlagNoHelp = 0x80,          // not in help
  GBOptionFlagGroupEnd = 0x400,       // closes the innermost open group
};

// A requirement and flags make one word, which C++ would let two enumerations do only with a warning.
constexpr std::uint64_t operator|(GBOptionRequirement requirement, GBOptionFlags flags) {
  return std::uint64_t{requirement} | std::uint64_t{flags};
}
constexpr std::uint64_t operator|(GBOptionFlags flags, GBOptionRequirement requirement) { return requirement | flags; }

class OptionDefinition {
 public:
  using Text = std::optional<std::string>;

  OptionDefinition() = default;
  OptionDefinition(signed char shortOption, Text longOption, Text description, std::uint64_t flags)
      : shortOption_(shortOption),
        longOption_(std::move(longOption)),
        description_(std::move(description)),
        flags_(flags) {}

  // The one-letter form; 0 is none, as in every separator, group and group's end.
  signed char shortOption() const { return shortOption_; }
  void setShortOption(signed char option) { shortOption_ = option; }
  // Without dashes; a group's name; none for a separator and a group's end.
  const Text &longOption() const { return longOption_; }
  void setLongOption(Text option) { longOption_ = std::move(option); }
  // The help text; a separator's text; none for a group's end.
  const Text &description() const { return description_; }
  void setDescription(Text description) { description_ = std::move(description); }
  // Of GBOptionFlags.
  std::uint64_t flags() const { return flags_; }
  void setFlags(std::uint64_t flags) { flags_ = flags; }

 private:
  signed char shortOption_ = 0;
  Text longOption_;
  Text description_;
  std::uint64_t flags_ = 0;
};

// One row of a static table for GBOptionsHelper::registerOptionsFromDefinitions(). A row whose texts are both null ends
// the table.
struct GBOptionDefinition {
  signed char shortOption = 0;        // 0 is none
  const char *longOption = nullptr;   // UTF-8, may be null
  const char *description = nullptr;  // UTF-8, may be null
  std::uint64_t flags = 0;
};

}  // namespace GB
