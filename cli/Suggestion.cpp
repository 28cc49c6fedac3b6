#include "cli/Suggestion.h"

#include <algorithm>
#include <numeric>
#include <utility>
#include <vector>

namespace GB {

namespace {

constexpr std::size_t kLongestSuggested = 64;  // what is longer than that is no slip of the finger

// Insertions, deletions, replacements and swaps of neighbours that make LEFT of RIGHT.
std::size_t editDistance(std::string_view left, std::string_view right) {
  std::vector<std::size_t> before;
  std::vector<std::size_t> above(right.size() + 1);
  std::iota(above.begin(), above.end(), std::size_t{0});
  for (std::size_t i = 1; i <= left.size(); ++i) {
    std::vector<std::size_t> row(right.size() + 1, i);
    for (std::size_t j = 1; j <= right.size(); ++j) {
      const std::size_t replaced = above[j - 1] + (left[i - 1] == right[j - 1] ? 0 : 1);
      row[j] = std::min({above[j] + 1, row[j - 1] + 1, replaced});
      if (i > 1 && j > 1 && left[i - 1] == right[j - 2] && left[i - 2] == right[j - 1])
        row[j] = std::min(row[j], before[j - 2] + 1);
    }
    before = std::exchange(above, std::move(row));
  }
  return above.back();
}

}  // namespace

Suggestion::Suggestion(std::string_view typed)
    : typed_(typed), distance_(typed.size() > kLongestSuggested ? 0 : std::max<std::size_t>(1, typed.size() / 3) + 1) {}

void Suggestion::offer(std::string_view name) {
  if (distance_ == 0 || name.size() > kLongestSuggested) return;
  // The beginning of a name counts as the next best to a slip.
  const bool isBeginning = typed_.size() >= 2 && name.starts_with(typed_);
  const std::size_t distance = isBeginning ? 1 : editDistance(typed_, name);
  if (distance >= distance_ || distance >= name.size()) return;
  distance_ = distance;
  best_ = name;
}

std::string Suggestion::sentence(std::string_view prefix) const {
  if (best_.empty()) return {};
  return "; did you mean " + std::string(prefix) + std::string(best_) + "?";
}

}  // namespace GB
