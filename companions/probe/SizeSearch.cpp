#include "companions/probe/SizeSearch.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace companions {

SizeSearch::SizeSearch(std::vector<int> sizes) : sizes_(std::move(sizes)), promising_{sizes_.front(), sizes_.back()} {}

bool SizeSearch::isOpen(int size) const { return (!arrived_ || size > *arrived_) && (!lost_ || size < *lost_); }

std::optional<int> SizeSearch::next() {
  if (lost_ && *lost_ <= sizes_.front()) return std::nullopt;
  for (; !promising_.empty(); promising_.pop_front())
    if (isOpen(promising_.front())) return promising_.front();
  std::vector<int> open;
  std::ranges::copy_if(sizes_, std::back_inserter(open), [this](int size) { return isOpen(size); });
  if (open.empty()) return std::nullopt;
  return open[open.size() / 2];
}

void SizeSearch::arrived(int size) { arrived_ = std::max(size, arrived_.value_or(size)); }

void SizeSearch::lost(int size) { lost_ = std::min(size, lost_.value_or(size)); }

void SizeSearch::reported(int size, int limit) {
  lost(size);
  if (limit < sizes_.front() || limit >= size) return;
  promising_.push_back(limit);
  promising_.push_back(limit + 1);
}

std::optional<int> SizeSearch::found() const { return arrived_; }

}  // namespace companions
