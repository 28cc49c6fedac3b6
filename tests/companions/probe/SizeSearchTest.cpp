#include <gtest/gtest.h>

#include <numeric>

#include "companions/probe/SizeSearch.h"

using companions::SizeSearch;

namespace {

std::vector<int> from(int first, int last) {
  std::vector<int> sizes(static_cast<std::size_t>(last - first + 1));
  std::iota(sizes.begin(), sizes.end(), first);
  return sizes;
}

struct Outcome {
  std::optional<int> found;
  std::vector<int> tried;
};

// On a path that carries LIMIT bytes. SAID: what a router says of everything larger; 0: nobody says anything.
Outcome searchOn(int limit, int said, std::vector<int> sizes = from(576, 1500)) {
  Outcome outcome;
  SizeSearch search(std::move(sizes));
  while (const auto size = search.next()) {
    outcome.tried.push_back(*size);
    if (*size <= limit)
      search.arrived(*size);
    else if (said != 0)
      search.reported(*size, said);
    else
      search.lost(*size);
    if (outcome.tried.size() > 100) break;
  }
  outcome.found = search.found();
  return outcome;
}

TEST(SizeSearchTest, IsContentWithTheLargestIfItArrives) {
  const Outcome outcome = searchOn(1500, 0);
  EXPECT_EQ(outcome.found, 1500);
  EXPECT_EQ(outcome.tried, (std::vector{576, 1500}));
}

TEST(SizeSearchTest, FindsEverySizeByHalves) {
  for (int limit = 576; limit < 1500; ++limit) {
    const Outcome outcome = searchOn(limit, 0);
    ASSERT_EQ(outcome.found, limit);
    ASSERT_LE(outcome.tried.size(), 12U) << limit;
  }
}

TEST(SizeSearchTest, BelievesARouterAsFarAsItIsTrue) {
  EXPECT_EQ(searchOn(1400, 1400).tried, (std::vector{576, 1500, 1400, 1401}));
  EXPECT_EQ(searchOn(1400, 1400).found, 1400);
  for (const int lie : {1, 68, 575, 576, 900, 1399, 1401, 1499, 1500, 65535})
    EXPECT_EQ(searchOn(1400, lie).found, 1400);
}

TEST(SizeSearchTest, EndsWhenNotEvenTheSmallestArrives) {
  const Outcome outcome = searchOn(100, 0);
  EXPECT_EQ(outcome.found, std::nullopt);
  EXPECT_EQ(outcome.tried, std::vector{576});
}

TEST(SizeSearchTest, TakesTheNextSmallerOfAFew) {
  EXPECT_EQ(searchOn(1491, 0, {576, 1280, 1400, 1492, 1500}).found, 1400);
  EXPECT_EQ(searchOn(1491, 1491, {576, 1280, 1400, 1492, 1500}).found, 1491);
  EXPECT_EQ(searchOn(1500, 0, {1000}).found, 1000);
}

}  // namespace
