// OMR register and fields, equalization and pixel loads against fake controllers.
#include "fake_detector.hpp"
#include "varkel.h"
#include <algorithm>
#include <gtest/gtest.h>

using namespace varkel::testing;
using Commands = std::vector<std::string>;

namespace {

void answer(FakeDetector& det, const Reply& reply)
{
  det.answer_all([=](const Request&) { return reply; });
}

template <auto Member> int get(const varkel_omr& o) { return static_cast<int>(o.*Member); }
// A setter as a function of an int, whatever its parameter type.
template <typename T> T param_of(int (*)(varkel_t*, T));
template <auto Set> int set(varkel_t* v, int x) { return Set(v, static_cast<decltype(param_of(Set))>(x)); }

// Per field, on a fresh (all zero) cache: a refused value (-1: none), an accepted
// one whose reply is cached (null: not cached), again with a reply of another form
// (the cache keeps what it had), then the cached read-back of "258".
TEST(OmrFields, EachPairSendsItsFieldAndCachesTheReplyAsDoesTheAllFieldsRead)
{
  using O = varkel_omr;
  const std::tuple<int (*)(varkel_t*, int), int (*)(varkel_t*), int, int, int, const char*, int (*)(const O&), int>
      cases[] = {
          {set<US_OmrOMSelec>, US_OmrOMSelec_RBV, 0, 7, 8, "7", get<&O::operation_mode>, 258},
          {set<US_ContinuousRW>, US_ContinuousRW_RBV, 1, 1, 2, "1", get<&O::crw_srw_mode>, 258},
          {set<US_Polarity>, US_Polarity_RBV, 2, 1, 2, "Polarity set for: 1", get<&O::polarity>, 258},
          {set<US_OmrPSSelec>, US_OmrPSSelec_RBV, 3, 3, 4, "3", get<&O::dataout>, 258},
          {set<US_Discriminator>, US_Discriminator_RBV, 4, 1, 2, "1", get<&O::discriminator>, 258},
          {set<US_TestPulse>, US_TestPulse_RBV, 5, 1, -1, "1", get<&O::enable_testPulse>, 1},
          {set<US_CounterDepth>, US_CounterDepth_RBV, 6, 3, 4, "3", get<&O::counterDepth_mode>, 258},
          {set<US_Equalization>, US_Equalization_RBV, 11, 1, -1, "1", get<&O::equalization>, 1},
          {set<US_SpectroscopicMode>, US_SpectroscopicMode_RBV, 12, 1, 2, "1", get<&O::colour_mode>, 258},
          {set<US_PixelMode>, US_PixelMode_RBV, 13, 1, 2, "1", get<&O::pixel_mode>, 258},
          {set<US_Gain>, US_Gain_RBV, 17, 3, 4, "3", get<&O::gain_mode>, 258},
          {set<US_SenseDacSel>, US_SenseDacSel_RBV, 18, 31, 32, nullptr, get<&O::sense_dacSel>, 2},
      };
  FakeDetector det(kinlet);
  varkel_t* v = det.handle();
  for (const auto& [setter, read_back, field, good, bad, set_reply, cached, read_back_cached] : cases) {
    SCOPED_TRACE(field);
    det.clear();
    EXPECT_EQ(bad >= 0 ? setter(v, bad) : -3, -3);
    for (const char* text : {set_reply ? set_reply : "31", "none"}) {
      answer(det, Reply::result(text));
      EXPECT_EQ(setter(v, good), 0);
    }
    EXPECT_EQ(cached(v->omr), set_reply ? good : 0);
    answer(det, Reply::result("258"));
    EXPECT_EQ(read_back(v), 0);
    EXPECT_EQ(cached(v->omr), read_back_cached);
    const std::string sent = "1:HS_Set_OMR " + std::to_string(field) + " " + std::to_string(good);
    EXPECT_EQ(det.all_commands(), (Commands{sent, sent, "1:HS_Get_OMR " + std::to_string(field)}));
  }
  // The all-fields read, then a failed one that leaves the values alone (the pair parse is unit-tested).
  det.clear();
  answer(det, Reply::result("6 : 24,0 : 4,"));
  EXPECT_EQ(get_omr(v), 0);
  answer(det, Reply::reset());
  EXPECT_EQ(get_omr(v), -1);
  EXPECT_EQ(std::tuple(v->omr_values[0], v->omr_values[6], det.all_commands()),
            std::tuple(4, 3, Commands(2, "1:HS_ImgChipOMR 4 0 0")));
}

// From module 2: the check, the commands per module, and the result, which for all
// modules is the last module's (`failing` resets).
TEST(OmrRegister, SetChecksTheFieldThenFansOut)
{
  auto each = [](const std::string& c) { return Commands{"1:" + c, "2:" + c, "3:" + c, "4:" + c}; };
  // field, value, target, result, commands, the module that resets (0: none)
  const std::tuple<int, int, varkel_send_to_all_t, int, Commands, int> cases[] = {
      {OMR_Ext_BG_Sel, 1, VARKEL_SEND_ONE_CHIP_ONE_MODULE, 0, {"2:HS_ImgChipOMR 1 20 1"}, 0},
      {OMR_Gain_Mode, 2, VARKEL_SEND_ALL_CHIPS_ONE_MODULE, 0, {"2:HS_ImgChipOMR 3 17 2"}, 0},
      {OMR_CountL, 3, VARKEL_SEND_ONE_CHIP_ALL_MODULES, 0, each("HS_ImgChipOMR 1 6 3"), 2},
      {OMR_M, 7, VARKEL_SEND_ALL_CHIPS_ALL_MODULES, -1, each("HS_ImgChipOMR 3 0 7"), 4},
      {OMR_Sense_DAC, 32, VARKEL_SEND_ONE_CHIP_ONE_MODULE, -12, {}, 0},
      {OMR_PS, 0, VARKEL_SEND_ONE_CHIP_ONE_MODULE, -11, {}, 0}, // not writable
      {OMR_ENUM_END, 0, VARKEL_SEND_ONE_CHIP_ONE_MODULE, -11, {}, 0},
      {OMR_Polarity, 1, VARKEL_SEND_ALL_MFBS_ONE_MODEULE, 0, {}, 0},
  };
  for (const auto& [field, value, to, rc, sent, failing] : cases) {
    FakeDetector det(varkelQuad);
    varkel_t* v = det.handle();
    ASSERT_EQ(select_module(v, 2), 0);
    if (failing)
      det.module(failing).set_handler([](const Request&) { return Reply::reset(); });
    EXPECT_EQ(set_omr(v, static_cast<varkel_omr_t>(field), value, to), rc) << field;
    EXPECT_EQ(std::pair(det.all_commands(), +v->varkel_module), std::pair(sent, sent.size() == 4 ? 4 : 2)) << field;
  }
}

// On four modules, main channel on module 4, nothing selected: the result, the
// commands with the first and the last, modules in ascending order.
TEST(PixelLoads, LoopsSendEveryCommandInModuleOrder)
{
  using V = varkel_t*;
  const std::string eq = "4:HS_LoadEqualization ", sel = "SelectMedipixBoard_Command 1 ", off = "4:HS_Set_OMR 11 0";
  // the call, its result, the count of commands, the first and the last
  const std::tuple<std::function<int(varkel_t*)>, int, std::size_t, std::string, std::string> cases[] = {
      {[](V v) { return US_Load_Equalization(v, 3, 0); }, 0, 36, eq + "CFG3 1", eq + "CFG3 36"},
      {[](V v) { return US_Load_Equalization(v, 255, 36); }, 0, 1, eq + "CFG255 36", eq + "CFG255 36"},
      {[](V v) { return US_Load_Equalization(v, 3, 37); }, -3, 0, "", ""},
      {[](V v) { return pixel_load(v, 5, 4095); }, 0, 1, "4:PixelLoad 5 4095", "4:PixelLoad 5 4095"},
      {[](V v) { return pixel_load(v, 5, 4096); }, -3, 0, "", ""},
      {[](V v) { return send_image(v, 0, 7); }, 0, 1, "4:sendImage 0 7", "4:sendImage 0 7"},
      {[](V v) { return send_image(v, 1, 7); }, 0, 36, "4:sendImage 1 7", "4:sendImage 36 7"},
      {[](V v) { return send_image(v, 2, 7); }, 0, 144, "1:sendImage 1 7", "4:sendImage 36 7"},
      {[](V v) { return send_image(v, 3, 7); }, 0, 0, "", ""},
      {[](V v) { return US_ConfigDiscL(v, 1, VARKEL_SEND_ALL_MFBS_ALL_MODULES); }, 0, 0, "", ""},
      {[](V v) { return US_ConfigDiscL(v, 1, VARKEL_SEND_ALL_CHIPS_ALL_MODULES); }, 0, 4 * 36 * 8, "1:" + sel + "2",
       off},
      // A refused selection (chip 0) is not counted; the sequence runs with chip 0.
      {[](V v) { return US_ConfigDiscL(v, 1, VARKEL_SEND_ONE_CHIP_ALL_MODULES); }, 0, 4 * 6,
       "1:HS_ReadCounter_Command 0 0", off},
      {[](V v) { return v->sensor_pos.sensorPos = 13, US_ConfigDiscL(v, 1, VARKEL_SEND_ONE_CHIP_ALL_MODULES); }, 0,
       4 * 8, "1:" + sel + "1", off},
      {[](V v) { return US_ConfigDiscL(v, 1, VARKEL_SEND_ALL_CHIPS_ONE_MODULE); }, 0, 36 * 8, "4:" + sel + "2", off},
  };
  for (const auto& [call, rc, count, first, last] : cases) {
    FakeDetector det(varkelQuad);
    EXPECT_EQ(call(det.handle()), rc);
    const Commands sent = det.all_commands();
    ASSERT_EQ(sent.size(), count) << first;
    EXPECT_TRUE(std::is_sorted(sent.begin(), sent.end(), [](auto& a, auto& b) { return a[0] < b[0]; }));
    EXPECT_EQ((sent.empty() ? Commands{"", ""} : Commands{sent.front(), sent.back()}), (Commands{first, last}));
  }
}

// The counter goes back to what was read first; a refused load skips only itself.
TEST(PixelLoads, DiscriminatorSequenceRestoresTheCounterAndGoesOnAfterAFailure)
{
  FakeDetector det(kinlet);
  const auto run = [&](const char* counter, uint32_t value) {
    det.clear();
    det.module(1).set_handler(
        [=](const Request& r) { return Reply::result(r.command() == "HS_ReadCounter_Command 0 0" ? counter : "1"); });
    return config_discl(det.handle(), 261, value);
  };
  const std::string read = "1:HS_ReadCounter_Command 0 0", high = "1:HS_ReadCounter_Command 1 1",
                    eq = "1:HS_Set_OMR 11 ";
  EXPECT_EQ(run("Counter High", 4096), -3);
  EXPECT_EQ(det.all_commands(), (Commands{read, high, eq + "1", high, eq + "0"}));
  EXPECT_EQ(run("Counter Low", 100), 0); // the load takes the chip number's low 8 bits
  EXPECT_EQ(det.all_commands(),
            (Commands{read, high, eq + "1", "1:PixelLoad 5 100", "1:HS_ReadCounter_Command 1 0", eq + "0"}));
}

} // namespace
