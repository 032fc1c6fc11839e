// The pair list of an all-fields OMR read, without a socket.
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

#include "internal/omr_parse.hpp"

using Pairs = std::vector<std::pair<int, int>>;

TEST(OmrPairs, StoresReadablePairsOfKnownFieldsAndAlwaysStops)
{
  struct Case {
    const char* text;
    Pairs stored;
    std::size_t read;
  };
  const std::vector<Case> cases = {
      {"0 : 4,6 : 24,17 : 2,", {{0, 4}, {6, 24}, {17, 2}}, 3},
      {"0:4,  1 :\t-1,", {{0, 4}, {1, -1}}, 2},
      {"20 : 7", {{20, 7}}, 1},              // last pair without its comma
      {"3 : 1;4 : 1,", {{3, 1}}, 1},         // anything but a comma after a pair ends it
      {"21 : 5,-1 : 5,2 : 1,", {{2, 1}}, 3}, // fields outside 0..20 are skipped
      {"Invalid params: no chip", {}, 0},    // an error text passed through
      {"5 : x,6 : 12,", {}, 0},              // a pair without a value
      {"1 : 99999999999,2 : 1,", {}, 0},     // a value beyond an int
      {"+1 : +2,+-3 : 4,", {{1, 2}}, 1},     // signs as %d reads them
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    Pairs stored;
    const std::size_t read =
        varkel::detail::parse_omr_pairs(c.text, [&](int field, int value) { stored.emplace_back(field, value); });
    EXPECT_EQ(stored, c.stored);
    EXPECT_EQ(read, c.read);
  }
}
