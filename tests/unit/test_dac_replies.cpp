// The list replies of DAC and OMR reads on text alone: every walk ends inside the
// text and stores only inside its caches.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <tuple>

#include "internal/dac.hpp"
#include "internal/omr_parse.hpp"
#include "varkel.h"

namespace {

TEST(DacReplies, ListsStoreInsideTheCachesAndStopAtTheFirstUnreadableEntry)
{
  // read mode, DAC, selected chip, reply, values stored, the first cell set (row * 32 + column; 2000 + that for
  // the analogue cache; -1: none)
  const std::tuple<int, int, int, std::string, int, int> cases[] = {
      {DIGITAL_READ_SINGLE_DAC, 9, 5, "42", 1, 4 * 32 + 8},
      {ANALOG_READ_SINGLE_DAC, 20, 5, "0.75", 1, 2000 + 4 * 32 + 19},
      {DIGITAL_READ_ALL_SENSORS, 9, 1, "1 : 10,x : 3,4 : 4,", 1, 8},                   // the walk ends at x
      {DIGITAL_READ_ALL_SENSORS, 9, 1, "0 : 1,37 : 2,-3 : 3,36 : 4,", 1, 35 * 32 + 8}, // chips outside 1..36
      {DIGITAL_READ_ALL_SENSORS, 33, 1, "1 : 1,", 0, -1},                              // DAC outside 1..32
      {DIGITAL_READ_ALL_DACS, 9, 3, "32 : 1,33 : 2,0 : 3,", 1, 2 * 32 + 31},           // column 31 is reachable
      {DIGITAL_READ_ALL_DACS, 9, 0, "1 : 1,", 0, -1},                                  // no chip selected
      {ANALOG_READ_ALL_DACS, 9, 3, "1 : 0.5,2 : nan,3:1e40,", 3, 2000 + 2 * 32},
      {ANALOG_READ_ALL_SENSORS, 9, 3, "1 : 0.5 2 : 0.7,", 1, 2000 + 8}, // no comma: the last entry
      {ANALOG_READ_ALL_SENSORS, 9, 3, "{ \"code\": -32601, \"message\": \"x\" }", 0, -1},
      {DIGITAL_READ_SINGLE_DAC, 9, 37, "42", 0, -1},
      {ANALOG_READ_SINGLE_DAC, 9, 5, "V=0.5", 0, -1},
      {WRITE_SINGLE_DAC, 9, 5, "1 : 1,", 0, -1},
      {DIGITAL_READ_ALL_SENSORS, 9, 1, std::string(1023, ','), 0, -1},
      {DIGITAL_READ_ALL_SENSORS, 9, 1, std::string(1000, ' ') + "1 : 2,", 1, 8},
  };
  for (const auto& [mode, dac, chip, text, stored, first] : cases) {
    int32_t digital[36][32] = {};
    float analog[36][32] = {};
    const int n = varkel::detail::store_dac_reply(mode, dac, chip, text.c_str(), digital, analog);
    int set = -1;
    for (int i = 36 * 32 - 1; i >= 0; --i)
      set = digital[i / 32][i % 32] != 0 ? i : analog[i / 32][i % 32] != 0 ? 2000 + i : set;
    EXPECT_EQ(std::pair(n, set), std::pair(stored, first)) << text;
  }
}

TEST(OmrPairs, StoresReadablePairsOfKnownFieldsAndAlwaysStops)
{
  // Fields not listed keep the 7 they start with.
  const std::pair<const char*, std::map<int, int>> cases[] = {
      {"0 : 4,6 : 24,17 : 2,", {{0, 4}, {6, 3}, {17, 2}}}, // counter depth in bits -> index
      {"6 : 6,", {{6, -1}}},
      {"21 : 5,-1 : 5,20 : 1,", {{20, 1}}}, // fields outside 0..20 are skipped
      {"3 : 1;4 : 1,", {{3, 1}}},           // anything but a comma after a pair ends it
      {"Invalid params: no chip", {}},      // an error text passed through
  };
  for (const auto& [text, stored] : cases) {
    int32_t values[varkel::detail::kOmrFields];
    std::fill(std::begin(values), std::end(values), 7);
    varkel::detail::store_omr_pairs(text, values);
    for (int f = 0; f < varkel::detail::kOmrFields; ++f)
      EXPECT_EQ(values[f], stored.count(f) ? stored.at(f) : 7) << text << " field " << f;
  }
}

} // namespace
