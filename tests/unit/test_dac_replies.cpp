// The DAC read-back parses on text alone: every walk ends inside the text and
// stores only inside the caches.
#include <gtest/gtest.h>

#include <string>

#include "internal/dac.hpp"
#include "varkel.h"

namespace {

TEST(DacReplies, ListsStoreInsideTheCachesAndStopAtTheFirstUnreadableEntry)
{
  const struct {
    int mode, dac, chip;
    std::string text;
    int stored;
  } cases[] = {
      {DIGITAL_READ_ALL_SENSORS, 9, 1, "1 : 10,x : 3,4 : 4,", 1},         // the walk ends at x
      {DIGITAL_READ_ALL_SENSORS, 9, 1, "0 : 1,37 : 2,-3 : 3,36 : 4,", 1}, // chips outside 1..36 dropped
      {DIGITAL_READ_ALL_SENSORS, 33, 1, "1 : 1,", 0},                     // DAC outside 1..32
      {DIGITAL_READ_ALL_DACS, 9, 3, "32 : 1,33 : 2,0 : 3,", 1},           // column 31 is reachable
      {DIGITAL_READ_ALL_DACS, 9, 0, "1 : 1,", 0},                         // no chip selected
      {ANALOG_READ_ALL_DACS, 9, 3, "1 : 0.5,2 : nan,3:1e40,", 3},
      {ANALOG_READ_ALL_SENSORS, 9, 3, "1 : 0.5 2 : 0.7,", 1}, // no comma: the last entry
      {ANALOG_READ_ALL_SENSORS, 9, 3, "{ \"code\": -32601, \"message\": \"x\" }", 0},
      {DIGITAL_READ_SINGLE_DAC, 9, 37, "42", 0},
      {ANALOG_READ_SINGLE_DAC, 9, 5, "V=0.5", 0},
      {DIGITAL_READ_ALL_SENSORS, 9, 1, std::string(1023, ','), 0},
      {DIGITAL_READ_ALL_SENSORS, 9, 1, std::string(1000, ' ') + "1 : 2,", 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 60));
    int32_t digital[36][32] = {};
    float analog[36][32] = {};
    EXPECT_EQ(varkel::detail::store_dac_reply(c.mode, c.dac, c.chip, c.text.c_str(), digital, analog), c.stored);
  }
}

} // namespace
