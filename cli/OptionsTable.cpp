#include "cli/OptionsTable.h"

#include <algorithm>
#include <utility>

#include "foundation/Text.h"

namespace GB {

void OptionsTable::widen(std::size_t column, std::size_t width) {
  if (widths_.size() <= column) widths_.resize(column + 1);
  widths_[column] = std::max(widths_[column], width);
}

void OptionsTable::dropPendingSeparator() {
  if (std::cmp_equal(rows_.size(), separatorMark_)) rows_.resize(rows_.size() - 2);
}

void OptionsTable::addSeparator(const OptionDefinition &definition) {
  dropPendingSeparator();
  rows_.emplace_back();
  rows_.push_back({vpnctl::element(definition.description())});
  separatorMark_ = static_cast<std::int64_t>(rows_.size());
}

void OptionsTable::addGroupHeading(const OptionDefinition &definition) {
  std::string heading = vpnctl::element(definition.longOption());
  if (const auto &description = definition.description(); description && !description->empty())
    heading += " " + *description;
  rows_.emplace_back();
  rows_.push_back({std::move(heading)});
}

}  // namespace GB
