// OMR register and fields, equalization and pixel loads against fake controllers.
#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "fake_detector.hpp"
#include "varkel.h"

using namespace varkel::testing;
using Commands = std::vector<std::string>;

namespace {

template <auto Member> int get(const varkel_omr& o) { return static_cast<int>(o.*Member); }

// Every module answers `reply` to everything, or resets on `failing` module.
void answer(FakeDetector& det, const Reply& reply, int failing = 0)
{
  for (int m = 1; m <= det.modules(); ++m)
    det.module(m).set_handler([=](const Request&) { return m == failing ? Reply::reset() : reply; });
}

} // namespace

// A setter as a function of an int, whatever its parameter type.
template <typename T> struct Param;
template <typename T> struct Param<int (*)(varkel_t*, T)> {
  using type = T;
};
template <auto Set> int set(varkel_t* v, int x) { return Set(v, static_cast<typename Param<decltype(Set)>::type>(x)); }

// Per field, on a fresh (all zero) cache: a refused value (-1: none), an accepted
// one whose reply is cached, the same with a reply of another form (the cache
// keeps what it had), then the read-back of the reply "258".
TEST(OmrFields, EachPairSendsItsFieldAndCachesTheReply)
{
  struct Case {
    int (*set)(varkel_t*, int);
    int (*read_back)(varkel_t*);
    int field, good, bad;
    const char* set_reply; // null: the setter's reply is not cached
    int (*cached)(const varkel_omr&);
    int read_back_cached;
  };
  using O = varkel_omr;
  const std::vector<Case> cases = {
      {set<US_OmrOMSelec>, US_OmrOMSelec_RBV, 0, 7, 8, "%d", get<&O::operation_mode>, 258},
      {set<US_ContinuousRW>, US_ContinuousRW_RBV, 1, 1, 2, "%d", get<&O::crw_srw_mode>, 258},
      {set<US_Polarity>, US_Polarity_RBV, 2, 1, 2, "Polarity set for: %d", get<&O::polarity>, 258},
      {set<US_OmrPSSelec>, US_OmrPSSelec_RBV, 3, 3, 4, "%d", get<&O::dataout>, 258},
      {set<US_Discriminator>, US_Discriminator_RBV, 4, 1, 2, "%d", get<&O::discriminator>, 258},
      {set<US_TestPulse>, US_TestPulse_RBV, 5, 1, -1, "%d", get<&O::enable_testPulse>, 1},
      {set<US_CounterDepth>, US_CounterDepth_RBV, 6, 3, 4, "%d", get<&O::counterDepth_mode>, 258},
      {set<US_Equalization>, US_Equalization_RBV, 11, 1, -1, "%d", get<&O::equalization>, 1},
      {set<US_SpectroscopicMode>, US_SpectroscopicMode_RBV, 12, 1, 2, "%d", get<&O::colour_mode>, 258},
      {set<US_PixelMode>, US_PixelMode_RBV, 13, 1, 2, "%d", get<&O::pixel_mode>, 258},
      {set<US_Gain>, US_Gain_RBV, 17, 3, 4, "%d", get<&O::gain_mode>, 258},
      {set<US_SenseDacSel>, US_SenseDacSel_RBV, 18, 31, 32, nullptr, get<&O::sense_dacSel>, 2},
  };
  FakeDetector det(kinlet);
  varkel_t* v = det.handle();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.field);
    det.clear();
    EXPECT_EQ(c.bad >= 0 ? c.set(v, c.bad) : -3, -3);
    const int set_cached = c.set_reply ? c.good : 0;
    char reply[64];
    std::snprintf(reply, sizeof reply, c.set_reply ? c.set_reply : "%d", c.good);
    for (const char* text : {static_cast<const char*>(reply), "none"}) {
      answer(det, Reply::result(text));
      EXPECT_EQ(c.set(v, c.good), 0);
      EXPECT_EQ(c.cached(v->omr), set_cached);
    }
    answer(det, Reply::result("258"));
    EXPECT_EQ(c.read_back(v), 0);
    EXPECT_EQ(c.cached(v->omr), c.read_back_cached);
    const std::string sent = "1:HS_Set_OMR " + std::to_string(c.field) + " " + std::to_string(c.good);
    EXPECT_EQ(det.all_commands(), (Commands{sent, sent, "1:HS_Get_OMR " + std::to_string(c.field)}));
  }
}

// From module 2: the check, what it prints first, and the commands per module.
TEST(OmrRegister, SetChecksTheFieldThenFansOut)
{
  struct Case {
    int field, value;
    varkel_send_to_all_t to;
    int rc;
    std::string printed;
    Commands sent;
  };
  const std::string na = "OMR-field not accessible\n", gain = "inside gain mode validate-> Value: 2\n";
  auto each = [](const std::string& c) { return Commands{"1:" + c, "2:" + c, "3:" + c, "4:" + c}; };
  const std::vector<Case> cases = {
      {OMR_Ext_BG_Sel, 1, VARKEL_SEND_ONE_CHIP_ONE_MODULE, 0, "OMR: 20 -> Value: 1\n", {"2:HS_ImgChipOMR 1 20 1"}},
      {OMR_Gain_Mode,
       2,
       VARKEL_SEND_ALL_CHIPS_ONE_MODULE,
       0,
       "OMR: 17 -> Value: 2\n" + gain,
       {"2:HS_ImgChipOMR 3 17 2"}},
      {OMR_CountL, 3, VARKEL_SEND_ONE_CHIP_ALL_MODULES, 0, "OMR: 6 -> Value: 3\n", each("HS_ImgChipOMR 1 6 3")},
      {OMR_M, 7, VARKEL_SEND_ALL_CHIPS_ALL_MODULES, 0, "OMR: 0 -> Value: 7\n", each("HS_ImgChipOMR 3 0 7")},
      {OMR_Sense_DAC, 32, VARKEL_SEND_ONE_CHIP_ONE_MODULE, -12, "OMR: 18 -> Value: 32\n", {}},
      {OMR_PS, 0, VARKEL_SEND_ONE_CHIP_ONE_MODULE, -11, "OMR: 3 -> Value: 0\n" + na, {}},
      {OMR_ENUM_END, 0, VARKEL_SEND_ONE_CHIP_ONE_MODULE, -11, "", {}},
      {OMR_Polarity, 1, VARKEL_SEND_ALL_MFBS_ONE_MODEULE, 0, "OMR: 2 -> Value: 1\n", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.printed);
    FakeDetector det(varkelQuad);
    varkel_t* v = det.handle();
    ASSERT_EQ(select_module(v, 2), 0);
    ::testing::internal::CaptureStdout();
    const int rc = set_omr(v, static_cast<varkel_omr_t>(c.field), c.value, c.to);
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(rc, c.rc);
    EXPECT_EQ(c.sent.empty() ? out : out.substr(0, c.printed.size()), c.printed);
    EXPECT_EQ(det.all_commands(), c.sent);
    EXPECT_EQ(v->varkel_module, c.sent.size() == 4 ? 4 : 2);
  }
}

TEST(OmrRegister, AllModuleWriteReportsTheLastModuleOnly)
{
  for (const auto& [failing, rc] : {std::pair{2, 0}, std::pair{4, -1}}) {
    FakeDetector det(varkelQuad);
    answer(det, Reply::result("OK"), failing);
    EXPECT_EQ(set_omr(det.handle(), OMR_M, 1, VARKEL_SEND_ALL_CHIPS_ALL_MODULES), rc) << failing;
  }
}

// The pair parse itself is unit-tested; here the command, the conversion of the
// counter depth, and a failed read that leaves the values alone.
TEST(OmrRegister, GetReadsEveryPairAndConvertsTheCounterDepth)
{
  FakeDetector det(kinlet);
  varkel_t* v = det.handle();
  for (const auto& [reply, depth] : {std::pair{Reply::result("6 : 24,0 : 4,"), 3},
                                     std::pair{Reply::result("6 : 6,"), -1}, std::pair{Reply::reset(), -1}}) {
    answer(det, reply);
    EXPECT_EQ(get_omr(v), reply.action == Reply::Action::reset ? -1 : 0);
    EXPECT_EQ(v->omr_values[6], depth);
  }
  EXPECT_EQ(v->omr_values[0], 4);
  EXPECT_EQ(det.all_commands(), Commands(3, "1:HS_ImgChipOMR 4 0 0"));
}

// On four modules, main channel on module 4, nothing selected: the result, the
// commands with the first and the last, modules in ascending order.
TEST(PixelLoads, LoopsSendEveryCommandInModuleOrder)
{
  struct Case {
    std::function<int(varkel_t*)> call;
    int rc;
    std::size_t count;
    std::string first, last;
  };
  const std::string eq = "4:HS_LoadEqualization ";
  const std::vector<Case> cases = {
      {[](varkel_t* v) { return US_Load_Equalization(v, 3, 0); }, 0, 36, eq + "CFG3 1", eq + "CFG3 36"},
      {[](varkel_t* v) { return US_Load_Equalization(v, 255, 36); }, 0, 1, eq + "CFG255 36", eq + "CFG255 36"},
      {[](varkel_t* v) { return US_Load_Equalization(v, 3, 37); }, -3, 0, "", ""},
      {[](varkel_t* v) { return pixel_load(v, 5, 4095); }, 0, 1, "4:PixelLoad 5 4095", "4:PixelLoad 5 4095"},
      {[](varkel_t* v) { return pixel_load(v, 5, 4096); }, -3, 0, "", ""},
      {[](varkel_t* v) { return send_image(v, 0, 7); }, 0, 1, "4:sendImage 0 7", "4:sendImage 0 7"},
      {[](varkel_t* v) { return send_image(v, 1, 7); }, 0, 36, "4:sendImage 1 7", "4:sendImage 36 7"},
      {[](varkel_t* v) { return send_image(v, 2, 7); }, 0, 144, "1:sendImage 1 7", "4:sendImage 36 7"},
      {[](varkel_t* v) { return send_image(v, 3, 7); }, 0, 0, "", ""},
      {[](varkel_t* v) { return US_ConfigDiscL(v, 1, VARKEL_SEND_ALL_MFBS_ALL_MODULES); }, 0, 0, "", ""},
      {[](varkel_t* v) { return US_ConfigDiscL(v, 1, VARKEL_SEND_ALL_CHIPS_ALL_MODULES); }, 0, 4 * 36 * 8,
       "1:SelectMedipixBoard_Command 1 2", "4:HS_Set_OMR 11 0"},
      // A refused selection (chip 0) is not counted; the sequence runs with chip 0.
      {[](varkel_t* v) { return US_ConfigDiscL(v, 1, VARKEL_SEND_ONE_CHIP_ALL_MODULES); }, 0, 4 * 6,
       "1:HS_ReadCounter_Command 0 0", "4:HS_Set_OMR 11 0"},
      {[](varkel_t* v) {
         v->sensor_pos.sensorPos = 13;
         return US_ConfigDiscL(v, 1, VARKEL_SEND_ONE_CHIP_ALL_MODULES);
       },
       0, 4 * 8, "1:SelectMedipixBoard_Command 1 1", "4:HS_Set_OMR 11 0"},
      {[](varkel_t* v) { return US_ConfigDiscL(v, 1, VARKEL_SEND_ALL_CHIPS_ONE_MODULE); }, 0, 36 * 8,
       "4:SelectMedipixBoard_Command 1 2", "4:HS_Set_OMR 11 0"},
  };
  for (const Case& c : cases) {
    FakeDetector det(varkelQuad);
    EXPECT_EQ(c.call(det.handle()), c.rc);
    Commands sent = det.all_commands();
    ASSERT_EQ(sent.size(), c.count) << c.first;
    EXPECT_TRUE(std::is_sorted(sent.begin(), sent.end(), [](auto& a, auto& b) { return a[0] < b[0]; }));
    EXPECT_EQ((sent.empty() ? Commands{"", ""} : Commands{sent.front(), sent.back()}), (Commands{c.first, c.last}));
  }
}

TEST(PixelLoads, DiscriminatorSequenceRestoresTheCounterAndGoesOnAfterAFailure)
{
  FakeDetector det(kinlet);
  varkel_t* v = det.handle();
  det.module(1).set_handler([](const Request& r) {
    return Reply::result(r.command() == "HS_ReadCounter_Command 0 0" ? "Counter High" : "1");
  });
  const Commands around = {"1:HS_ReadCounter_Command 0 0", "1:HS_ReadCounter_Command 1 1", "1:HS_Set_OMR 11 1"};
  const Commands after = {"1:HS_ReadCounter_Command 1 1", "1:HS_Set_OMR 11 0"};
  for (const auto& [value, rc] : {std::pair{100u, 0}, std::pair{4096u, -3}}) {
    det.clear();
    EXPECT_EQ(config_discl(v, 261, value), rc);
    Commands expected = around;
    if (rc == 0)
      expected.push_back("1:PixelLoad 5 100"); // the chip number's low 8 bits
    expected.insert(expected.end(), after.begin(), after.end());
    EXPECT_EQ(det.all_commands(), expected);
  }
}
