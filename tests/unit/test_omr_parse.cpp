// The pair list of an all-fields OMR read, without a socket.
#include <gtest/gtest.h>

#include <map>

#include "internal/omr_parse.hpp"

TEST(OmrPairs, StoresReadablePairsOfKnownFieldsAndAlwaysStops)
{
  // Fields not listed keep the 7 they start with.
  const struct {
    const char* text;
    std::map<int, int> stored;
  } cases[] = {
      {"0 : 4,6 : 24,17 : 2,", {{0, 4}, {6, 3}, {17, 2}}}, // counter depth in bits -> index
      {"6 : 6,", {{6, -1}}},
      {"0:4,  1 :\t-1,", {{0, 4}, {1, -1}}},
      {"20 : 7", {{20, 7}}},              // last pair without its comma
      {"3 : 1;4 : 1,", {{3, 1}}},         // anything but a comma after a pair ends it
      {"21 : 5,-1 : 5,2 : 1,", {{2, 1}}}, // fields outside 0..20 are skipped
      {"Invalid params: no chip", {}},    // an error text passed through
      {"5 : x,6 : 12,", {}},              // a pair without a value
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    int32_t values[varkel::detail::kOmrFields];
    std::fill(std::begin(values), std::end(values), 7);
    varkel::detail::store_omr_pairs(c.text, values);
    for (int f = 0; f < varkel::detail::kOmrFields; ++f)
      EXPECT_EQ(values[f], c.stored.count(f) ? c.stored.at(f) : 7) << "field " << f;
  }
}
