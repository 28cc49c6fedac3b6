// The search for the largest size that arrives, among sizes that are given: which one is to be tried next. It asks
// nobody by itself.
//
// Usual sequence: while next() has one, try it and say arrived(), lost() or reported(); then found(). Thread rule: as
// any object that keeps state.

#pragma once

#include <deque>
#include <optional>
#include <vector>

namespace companions {

class SizeSearch {
 public:
  // SIZES: ascending, at least one. The smallest is tried first, since without it there is nothing to find, then the
  // largest, which is mostly the answer, then halves.
  explicit SizeSearch(std::vector<int> sizes);

  std::optional<int> next();
  void arrived(int size);
  void lost(int size);
  // Somebody says that what was sent with SIZE does not get further than LIMIT. He may be wrong: LIMIT is tried, and
  // the one above it.
  void reported(int size, int limit);
  // The largest that has arrived; none: not even the smallest.
  std::optional<int> found() const;

 private:
  bool isOpen(int size) const;

  std::vector<int> sizes_;
  std::optional<int> arrived_;
  std::optional<int> lost_;  // the smallest
  std::deque<int> promising_;
};

}  // namespace companions
