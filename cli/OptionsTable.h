// The rows that help and the values table are printed from, and what the two have in common: separators, which vanish
// when nothing follows them, and group headings. Private to the options helper.
//
// Thread rule: one thread.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cli/OptionDefinition.h"

namespace GB {

class OptionsTable {
 public:
  using Row = std::vector<std::string>;  // no cell: an empty line; one: a separator or a heading

  // SEPARATOR_MARK is a number of rows that the table never has at a separator: none was added yet.
  explicit OptionsTable(std::int64_t separatorMark) : separatorMark_(separatorMark) {}

  const std::vector<Row> &rows() const { return rows_; }
  // Of each column, in UTF-16 code units; 0 for one that no row has widened.
  std::size_t width(std::size_t column) const { return column < widths_.size() ? widths_[column] : 0; }
  void widen(std::size_t column, std::size_t width);

  void add(Row row) { rows_.push_back(std::move(row)); }
  // An empty line and the text. Replaces a separator that nothing has followed.
  void addSeparator(const OptionDefinition &definition);
  // An empty line and the group's name with its description. Groups never collapse, and do not count as something that
  // follows a separator's rows either: the mark stays where it is.
  void addGroupHeading(const OptionDefinition &definition);
  // Takes away the separator that nothing has followed, if there is one.
  void dropPendingSeparator();

 private:
  std::vector<Row> rows_;
  std::vector<std::size_t> widths_;
  std::int64_t separatorMark_;  // number of rows right behind the last separator
};

}  // namespace GB
