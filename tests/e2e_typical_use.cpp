// The typical use, end to end, against the simulator running in this process, and
// around it: a missing chip and a link that stays down, per-command latency, the
// controllers' read-backs and refusals, a stop, the data server's judgements. The
// records' fields are packed: the assertions take copies of them (unary +).
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <numeric>
#include <sys/time.h>
#include <thread>
#include <tuple>
#include <unistd.h>

#include "fake_data_server.hpp"
#include "simulator.hpp"
#include "varkel.h"

namespace {

using namespace std::chrono_literals;
namespace sim = varkel::sim;

sim::Options options(varkel_detector_model_t model, std::chrono::microseconds latency = {},
                     std::vector<sim::MissingChip> missing = {})
{
  sim::Options o;
  o.model = model;
  o.latency = latency;
  o.missing = std::move(missing);
  return o;
}

// A library handle driving a simulator of the same model.
struct Detector {
  explicit Detector(const sim::Options& o) : sim(o), v(varkel_new(o.model)) { v->simulate = 1; }
  ~Detector() { varkel_delete(v); }

  int connect_backend() { return varkel_connect_backend(v, "127.0.0.1", sim.data_port()); }
  int connect_modules()
  {
    const std::vector<const char*> hosts(4, "127.0.0.1");
    std::vector<uint16_t> ports;
    for (int m = 1; m <= sim.modules(); ++m)
      ports.push_back(sim.module_port(m));
    return varkel_connect(v, hosts.data(), ports.data());
  }
  bool connect() { return connect_backend() == 0 && connect_modules() == 0; }

  // Module 1 leads, the others follow its shutter output.
  bool configure(float exposure, float period, int exposures)
  {
    return set_acquireTime(v, exposure) == 0 && set_periodTime(v, period) == 0 &&
           set_numberExposures(v, exposures) == 0 &&
           define_master_module(v, 1, false, VARKEL_TRIGGER_MODE_EXTERNAL_POS_EDGE) == 0;
  }

  // The typical use from the acquisition parameters to the sample frame: true when
  // every step succeeds. Models without a frame segment cannot be prepared.
  bool run(int exposures)
  {
    return configure(0.004f, 0.008f, exposures) && prepare_varkel(v) == (sim.segment_name().empty() ? -1 : 0) &&
           acquire();
  }
  // execute_acquire, status_acquire until done, the data server's status, the sample frame.
  bool acquire()
  {
    bool ok = US_NumExposuresCounter_RBV(v) == 0 && execute_acquire(v) == 0;
    for (auto end = std::chrono::steady_clock::now() + 20s; ok && status_acquire(v) != DONE_ACQ;
         std::this_thread::sleep_for(1ms))
      ok = std::chrono::steady_clock::now() < end;
    ok = ok && US_NumExposuresCounter_RBV(v) == 0 && get_acqStatus_fromBackend(v) == 0;
    get_array_data(v);
    return ok;
  }

  varkel::testing::ShmNamesLock names; // the simulator's segment has a machine-wide name
  sim::Simulator sim;
  varkel_t* v;
};

// Chip `index` of the frame is (module * 3 + board) * 12 + position.
int64_t chip_sum(std::span<const int32_t> frame, int index)
{
  const auto pixels = frame.subspan(static_cast<std::size_t>(index) * 65536, 65536);
  return std::accumulate(pixels.begin(), pixels.end(), int64_t{0});
}

class TypicalUse : public ::testing::TestWithParam<varkel_detector_model_t> {};

TEST_P(TypicalUse, EveryModuleDeliversEveryExposureAndTheFrameArrives)
{
  Detector d(options(GetParam()));
  const int modules = d.sim.modules();
  ASSERT_TRUE(d.connect() && d.run(4));
  const auto& p = d.v->acquireParam;
  EXPECT_EQ(std::tuple(+p.acquireTime, +p.acquirePeriod, +p.numExposures, +p.numExposuresCounter),
            std::tuple(0.004f, 0.008f, 4u, 4u));
  const acqStatusArgs& s = d.v->acq_status_return;
  for (int m = 0; m < 4; ++m)
    EXPECT_EQ(std::tuple(+s.noOfFrames[m], +s.noOfAquisitions[m]),
              std::tuple(m < modules ? 4u : 0u, m < modules ? 1u : 0u));
  EXPECT_EQ(s.done, 1);

  // Only the three- and four-board-row models have a frame segment to map.
  const auto frame = d.sim.frame();
  ASSERT_EQ(frame.size(), GetParam() == varkelTrio || GetParam() == varkelQuad ? d.v->frame_size : 0u);
  EXPECT_EQ(d.v->adata.sample_frame == nullptr, frame.empty());
  EXPECT_TRUE(frame.empty() || std::memcmp(d.v->sample_frame, frame.data(), frame.size_bytes()) == 0);
  for (int c = 0; c < modules * 36 && !frame.empty(); ++c)
    ASSERT_GT(chip_sum(frame, c), 0) << "chip index " << c;
}

INSTANTIATE_TEST_SUITE_P(Models, TypicalUse, ::testing::Values(kinlet, varkelLite, varkelTrio, varkelQuad),
                         [](const auto& info) { return std::string(sim::model_name(info.param)); });

// Module 2 lacks chip 30 (board 0, position 5); module 3's link never comes up.
TEST(TypicalUseWithFaults, AMissingChipStaysDarkAndAModuleOffTheLinkDeliversNothing)
{
  Detector d(options(varkelQuad, {}, {{2, 30}}));
  ASSERT_EQ(d.connect_backend(), 0);
  d.v->init_args.qpn[2] += 1;
  ASSERT_EQ(d.connect_modules(), 0);

  // The efuse read-back names the selected chip's efuse register: 0 for none.
  const auto two = VARKEL_THREAD_MODULE2;
  for (int chip : {5, 4}) {
    ASSERT_FALSE(US_ImgChipNumberID(d.v, chip, two) || US_efuseID_RBV(d.v, two) ||
                 read_mb_reg(d.v, chip * 4096 + 0x18, two));
    EXPECT_EQ(std::strtol(d.v->varkelParam.efuseID, nullptr, 16), d.v->mb_reg[two]) << chip;
    EXPECT_EQ(d.v->mb_reg[two] == 0, chip == 5) << chip;
  }

  const uint64_t taken = d.sim.module(3).exposures_taken;
  ASSERT_TRUE(d.run(4));
  EXPECT_EQ(d.sim.module(3).exposures_taken - taken, 4u); // it did expose
  const acqStatusArgs& s = d.v->acq_status_return;
  const std::span<const int32_t> frame(d.v->sample_frame, d.v->frame_size);
  for (int m = 0; m < 4; ++m) {
    EXPECT_EQ(std::tuple(+s.noOfFrames[m], +s.noOfAquisitions[m]), std::tuple(m == 2 ? 0u : 4u, m == 2 ? 0u : 1u)) << m;
    EXPECT_EQ(chip_sum(frame, m * 36 + 5) > 0, m != 1 && m != 2) << m;
  }
  EXPECT_GT(chip_sum(frame, 36 + 4), 0);
}

// Each controller takes 2 ms per reply: connecting the four modules one after
// another pays 56 of them, connecting them side by side about a quarter of that.
TEST(TypicalUseWithLatency, ModulesConnectSideBySide)
{
  Detector d(options(varkelQuad, 2000us));
  ASSERT_EQ(d.connect_backend(), 0);
  auto t0 = std::chrono::steady_clock::now();
  for (int m = 0; m < 4; ++m)
    ASSERT_EQ(varkel_init(d.v, m, "127.0.0.1", d.sim.module_port(m + 1)), 0);
  const auto sequential = std::chrono::steady_clock::now() - t0;
  t0 = std::chrono::steady_clock::now();
  ASSERT_EQ(d.connect_modules(), 0);
  const auto parallel = std::chrono::steady_clock::now() - t0;
  EXPECT_GE(sequential, 56 * 2ms);
  EXPECT_LT(parallel, sequential / 2) << "parallel " << parallel.count() << " sequential " << sequential.count();

  ASSERT_TRUE(d.run(2));
  for (int m = 0; m < 4; ++m)
    EXPECT_EQ(+d.v->acq_status_return.noOfFrames[m], 2u);
}

// Every value read back runs through the simulator's reply and the library's parse.
TEST(Controls, EveryReadBackLandsInTheHandle)
{
  Detector d(options(varkelTrio));
  ASSERT_TRUE(d.connect());
  varkel_t* v = d.v;
  ASSERT_EQ(US_AcquireTime(v, .25f) | US_AcquirePeriod(v, .5f) | US_NumExposures(v, 7) |
                US_ReadCounter(v, VARKEL_COUNTER_HIGH) | US_DiscardData(v, true) | select_chipNumber(v, 18) |
                US_SoftawareTrigger(v, 1),
            0);
  ASSERT_EQ(US_AcquireTime_RBV(v) | US_AcquirePeriod_RBV(v) | US_NumExposures_RBV(v) | US_ReadCounter_RBV(v) |
                US_DiscardData_RBV(v) | select_board_rbv(v) | US_ImgChipNumberID_RBV(v) | US_DetectorState_RBV(v) |
                US_Acquire_RBV(v) | US_ImageMode(v, VARKEL_IMAGE_MODE_CONTINUOUS),
            0);
  const auto& a = v->acquireParam;
  const auto& p = v->varkelParam;
  EXPECT_EQ(std::tuple(+a.acquireTime, +a.acquirePeriod, +a.numExposures, p.read_counter, p.discard_data, p.image_mode,
                       p.software_trigger),
            std::tuple(.25f, .5f, 7u, VARKEL_COUNTER_HIGH, true, VARKEL_IMAGE_MODE_CONTINUOUS, true));
  EXPECT_EQ(std::tuple(+v->sensor_pos.mfb, +v->sensor_pos.chipId, std::string(a.detectorState), a.acquireState),
            std::tuple(1, 5, std::string("Idle"), false));
  EXPECT_TRUE(US_SoftawareTrigger(v, 0) == 0 && !p.software_trigger);
}

// OMR fields written by both commands come back in the controller's pair list.
TEST(Controls, ChipConfigurationReadsBackWhatWasWritten)
{
  Detector d(options(varkelTrio));
  ASSERT_TRUE(d.connect());
  varkel_t* v = d.v;
  ASSERT_EQ(set_omr(v, OMR_Gain_Mode, VARKEL_GAIN_MODE_HIGH, VARKEL_SEND_ALL_CHIPS_ALL_MODULES) |
                set_omr(v, OMR_CountL, VARKEL_COUNTERDEPTH_24BITS, VARKEL_SEND_ALL_CHIPS_ONE_MODULE) |
                select_chipNumber(v, 30) | US_Polarity(v, VARKEL_POLARITY_HOLES) | US_Equalization(v, true) |
                US_Load_Equalization(v, 7, 0) | get_omr(v),
            0);
  const int32_t* f = v->omr_values;
  EXPECT_EQ(std::tuple(f[OMR_Gain_Mode], f[OMR_CountL], f[OMR_Polarity], f[OMR_Equalization]), std::tuple(2, 3, 1, 1));
  EXPECT_EQ(std::tuple(v->omr.polarity, v->omr.equalization), std::tuple(VARKEL_POLARITY_HOLES, true));
}

// A controller answers what it cannot do with a JSON-RPC error, handed over as the result text.
TEST(Controls, RefusedCommandsComeBackAsJsonRpcErrors)
{
  Detector d(options(varkelLite));
  ASSERT_TRUE(d.connect());
  const std::pair<const char*, const char*> cases[] = {
      {"HS_NoSuchCommand 1", "\"code\": -32601"},
      {"SelectMedipixBoard_Command 1 2", "No Medipix board 2"}, // one board on this model
      {"HS_AcquireTime_Command 2 0", "\"code\": -32602"},
      {"HS_NumExposures_Command 1 0", "at least 1"},
      {"HS_ImgChipOMR 1 21 0", "No OMR field 21"},
      {"HS_Set_OMR 6 4", "cannot hold 4"},
      {"HS_LoadEqualization CFG256 25", "\"code\": -32602"},
      {"sendImage 1 0", "No chip 1"}, // chip 1 is on board 2
  };
  for (const auto& [command, expected] : cases) {
    char reply[1024];
    ASSERT_EQ(query_and_cache(d.v, VARKEL_THREAD_MODULE1, reply, "%s", command), 0) << command;
    EXPECT_NE(std::strstr(reply, expected), nullptr) << command << " -> " << reply;
  }
}

// Twelve seconds long, and the library's timer (exposures x time) would fire after
// ten: the test is over long before either, even under a sanitizer.
TEST(Controls, AStoppedAcquisitionStopsCountingFrames)
{
  Detector d(options(varkelQuad));
  ASSERT_TRUE(d.connect() && d.configure(0.05f, 0.06f, 200) && prepare_varkel(d.v) == 0 && execute_acquire(d.v) == 0);
  const acqStatusArgs& s = d.v->acq_status_return;
  for (auto end = std::chrono::steady_clock::now() + 10s;
       s.noOfFrames[0] < 2 && std::chrono::steady_clock::now() < end;)
    ASSERT_EQ(get_acqStatus_fromBackend(d.v), 0);
  ASSERT_GE(+s.noOfFrames[0], 2u);
  EXPECT_EQ(s.done, 0);
  ASSERT_EQ(US_DetectorState_RBV(d.v), 0);
  EXPECT_STREQ(d.v->acquireParam.detectorState, "Acquiring");

  EXPECT_EQ(stop_acquire(d.v), STOPPED);
  ASSERT_EQ(get_acqStatus_fromBackend(d.v), 0);
  const acqStatusArgs at_stop = s;
  std::this_thread::sleep_for(180ms); // three more periods: nothing may arrive after the stop
  ASSERT_EQ(get_acqStatus_fromBackend(d.v), 0);
  for (int m = 0; m < 4; ++m)
    EXPECT_EQ(std::pair(+s.noOfFrames[m], at_stop.noOfFrames[m] < 200), std::pair(+at_stop.noOfFrames[m], true)) << m;
  EXPECT_EQ(s.done, 1);
  EXPECT_EQ(send_stopAcquire_toBackend(d.v), 0);
  EXPECT_EQ(d.v->ack.type, 0);
  const itimerval off{}; // stop_acquire leaves the timer armed: its signal must not cut into a later test
  setitimer(ITIMER_REAL, &off, nullptr);
}

// The last arguments ACKed save during a second acquisition: only its frames count.
TEST(Controls, TheDataServerJudgesTheArgumentsAndCountsWhatWasSaved)
{
  Detector d(options(varkelTrio));
  ASSERT_TRUE(d.connect() && d.run(3));
  // Save mode, file, captures, acquisition mode (-1: the readout mode's), reply code, NAK error.
  const std::tuple<uint8_t, const char*, int, int, int, uint8_t> cases[] = {
      {NO_SAVE, "Random string.", 0, -1, 0, 0},
      {SAVE_DURING, "/no-such-folder/run.h5", 3, -1, -3, INVALID_SAVE_PATH},
      {SAVE_DURING, "/run.h5", 0, -1, -3, INVALID_NUM_OF_ACQUISITIONS},
      {SAVE_AFTER, "/run.h5", 3, -1, 0, 0},
      {NO_SAVE, "Random string.", 1, 7, -3, INVALID_AQUISITION_MODE},
      {SAVE_DURING, "/run.h5", 1, -1, 0, 0},
  };
  for (const auto& [save, path, captures, mode, rc, nak] : cases) {
    ASSERT_EQ(update_backend_acqArgs(d.v, VARKEL_MEDIPIX_MODE_DEFAULT, false, save, true, 1, 5), 0);
    ASSERT_EQ(set_file_name_template(d.v, path), 0);
    d.v->acquireParam.numCapture = captures;
    if (mode >= 0)
      d.v->acq_args.aquisitionMode = static_cast<uint8_t>(mode);
    EXPECT_EQ(send_acqArgs_toBackend(d.v), rc) << path << " " << captures;
    EXPECT_EQ(d.v->ack.error, nak) << path << " " << captures;
  }
  ASSERT_TRUE(d.acquire());
  uint64_t saved = 0;
  ASSERT_EQ(get_saveStatus_fromBackend(d.v, &saved), 0);
  EXPECT_EQ(std::tuple(saved, +d.v->saveargs.done, +d.v->saveargs.savedFrameNum), std::tuple(1u, +DONE, 3u));
  EXPECT_EQ(abort_save(d.v), 0);

  char path[] = "/tmp/varkel-e2e-geometry-XXXXXX";
  close(mkstemp(path));
  std::ofstream(path) << R"({"modules": 1})";
  EXPECT_EQ(send_geometryFile_toBackend(d.v, path), 0);
  unlink(path);
}

// Some replies make the library end the process with status 0: within a test, a failure.
[[maybe_unused]] const int exit_guard = std::atexit([] {
  if (testing::UnitTest::GetInstance()->current_test_info() != nullptr)
    std::_Exit(1);
});

} // namespace
