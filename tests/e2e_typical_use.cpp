// The typical use, end to end, against the simulator running in this process:
// data server, modules, acquisition parameters, trigger arrangement, preparation,
// acquisition, data-server status and the sample frame.
#include <chrono>
#include <cstring>
#include <gtest/gtest.h>
#include <numeric>
#include <vector>

#include "e2e_detector.hpp"

// The records' fields are packed: the assertions take copies of them (unary +),
// never references.

namespace {

using namespace std::chrono_literals;
using varkel::e2e::Detector;
using varkel::e2e::model;
using varkel::sim::Options;

constexpr int kExposures = 4;
constexpr float kExposure = 0.004f; // both exact to the microsecond in single precision
constexpr float kPeriod = 0.008f;

std::span<const int32_t> chip_pixels(std::span<const int32_t> frame, int module, int board, int chip)
{
  const std::size_t index = (static_cast<std::size_t>(module) * 3 + board) * 12 + chip;
  return frame.subspan(index * 65536, 65536);
}

int64_t sum(std::span<const int32_t> pixels) { return std::accumulate(pixels.begin(), pixels.end(), int64_t{0}); }

class TypicalUse : public ::testing::TestWithParam<varkel_detector_model_t> {};

TEST_P(TypicalUse, EveryModuleDeliversEveryExposureAndTheFrameArrives)
{
  Detector d(model(GetParam()));
  const int modules = d.sim.modules();
  ASSERT_EQ(d.connect(), 0);
  EXPECT_EQ(+d.v->init_args.bufferSize, 512u);
  for (int m = 1; m <= modules; ++m)
    EXPECT_TRUE(d.sim.module(m).link_up) << "module " << m;

  ASSERT_EQ(d.configure(kExposure, kPeriod, kExposures), 0);
  for (int m = 1; m <= modules; ++m) {
    const auto view = d.sim.module(m);
    EXPECT_EQ(view.exposure_us, 4000u);
    EXPECT_EQ(view.period_us, 8000u);
    EXPECT_EQ(view.exposures, static_cast<uint32_t>(kExposures));
    EXPECT_EQ(view.trigger_mode, m == 1 ? 0u : 1u) << "module " << m;
  }
  EXPECT_EQ(d.sim.module(1).trigger_out, 6u);
  EXPECT_FLOAT_EQ(d.v->acquireParam.acquireTime, kExposure);
  EXPECT_FLOAT_EQ(d.v->acquireParam.acquirePeriod, kPeriod);
  EXPECT_EQ(d.v->acquireParam.numExposures, static_cast<uint32_t>(kExposures));

  ASSERT_EQ(US_NumExposuresCounter_RBV(d.v), 0);
  // Only the three- and four-board-row models have a frame segment to map.
  const bool has_frame = GetParam() == varkelTrio || GetParam() == varkelQuad;
  EXPECT_EQ(prepare_varkel(d.v), has_frame ? 0 : -1);

  ASSERT_EQ(d.acquire(), 0);
  ASSERT_EQ(US_NumExposuresCounter_RBV(d.v), 0);
  EXPECT_EQ(d.v->acquireParam.numExposuresCounter, static_cast<uint32_t>(kExposures));

  ASSERT_EQ(get_acqStatus_fromBackend(d.v), 0);
  const acqStatusArgs& s = d.v->acq_status_return;
  for (int m = 0; m < 4; ++m) {
    EXPECT_EQ(+s.noOfFrames[m], m < modules ? uint64_t{kExposures} : 0u) << "module index " << m;
    EXPECT_EQ(+s.noOfAquisitions[m], m < modules ? 1u : 0u) << "module index " << m;
  }
  EXPECT_EQ(s.done, 1);

  get_array_data(d.v);
  if (has_frame) {
    const auto frame = d.sim.frame();
    ASSERT_EQ(frame.size(), d.v->frame_size);
    EXPECT_EQ(std::memcmp(d.v->sample_frame, frame.data(), frame.size_bytes()), 0);
    for (int m = 0; m < modules; ++m)
      for (int b = 0; b < 3; ++b)
        for (int c = 0; c < 12; ++c)
          ASSERT_GT(sum(chip_pixels(frame, m, b, c)), 0) << m << " " << b << " " << c;
  } else {
    EXPECT_EQ(d.v->adata.sample_frame, nullptr);
  }
  EXPECT_EQ(stop_acquire(d.v), STOPPED);
}

INSTANTIATE_TEST_SUITE_P(Models, TypicalUse, ::testing::Values(kinlet, varkelLite, varkelTrio, varkelQuad),
                         [](const auto& info) { return std::string(varkel::sim::model_name(info.param)); });

TEST(TypicalUseWithAMissingChip, ItsPositionReadsNoEfuseAndStaysDarkWhileTheRestCounts)
{
  Options o = model(varkelQuad);
  o.missing = {{2, 30}}; // module 2, board 0, chip index 5
  Detector d(o);
  ASSERT_EQ(d.connect(), 0);
  ASSERT_EQ(US_Select_MFB(d.v, 0, VARKEL_THREAD_MODULE2), 0);
  ASSERT_EQ(read_mb_reg(d.v, 5 * 4096 + 0x18, VARKEL_THREAD_MODULE2), 0);
  EXPECT_EQ(d.v->mb_reg[VARKEL_THREAD_MODULE2], 0);
  ASSERT_EQ(read_mb_reg(d.v, 4 * 4096 + 0x18, VARKEL_THREAD_MODULE2), 0);
  EXPECT_NE(d.v->mb_reg[VARKEL_THREAD_MODULE2], 0);
  ASSERT_EQ(US_ImgChipNumberID(d.v, 5, VARKEL_THREAD_MODULE2), 0);
  ASSERT_EQ(US_efuseID_RBV(d.v, VARKEL_THREAD_MODULE2), 0);
  EXPECT_STREQ(d.v->varkelParam.efuseID, "0");

  ASSERT_EQ(d.configure(kExposure, kPeriod, kExposures), 0);
  ASSERT_EQ(prepare_varkel(d.v), 0);
  ASSERT_EQ(d.acquire(), 0);
  ASSERT_EQ(get_acqStatus_fromBackend(d.v), 0);
  for (int m = 0; m < 4; ++m)
    EXPECT_EQ(+d.v->acq_status_return.noOfFrames[m], uint64_t{kExposures});
  get_array_data(d.v);
  const std::span<const int32_t> copy(d.v->sample_frame, d.v->frame_size);
  EXPECT_EQ(sum(chip_pixels(copy, 1, 0, 5)), 0);
  EXPECT_GT(sum(chip_pixels(copy, 1, 0, 4)), 0);
  EXPECT_GT(sum(chip_pixels(copy, 0, 0, 5)), 0);
}

// Each controller takes 2 ms per reply: connecting the four modules one after
// another pays 56 of them, connecting them side by side about a quarter of that.
TEST(TypicalUseWithLatency, ModulesConnectSideBySide)
{
  Options o = model(varkelQuad);
  o.latency = 2000us;
  Detector d(o);
  ASSERT_EQ(varkel_connect_backend(d.v, "127.0.0.1", d.sim.data_port()), 0);

  varkel_t* one_by_one = varkel_new(varkelQuad);
  one_by_one->init_args = d.v->init_args;
  auto t0 = std::chrono::steady_clock::now();
  for (int m = 0; m < 4; ++m)
    ASSERT_EQ(varkel_init(one_by_one, m, "127.0.0.1", d.sim.module_port(m + 1)), 0);
  const auto sequential = std::chrono::steady_clock::now() - t0;
  varkel_delete(one_by_one);

  std::vector<const char*> hosts(4, "127.0.0.1");
  std::vector<uint16_t> ports;
  for (int m = 1; m <= 4; ++m)
    ports.push_back(d.sim.module_port(m));
  t0 = std::chrono::steady_clock::now();
  ASSERT_EQ(varkel_connect(d.v, hosts.data(), ports.data()), 0);
  const auto parallel = std::chrono::steady_clock::now() - t0;

  EXPECT_GE(sequential, 56 * 2ms);
  EXPECT_LT(parallel, sequential / 2) << "parallel " << parallel.count() << " sequential " << sequential.count();

  ASSERT_EQ(d.configure(kExposure, kPeriod, 2), 0);
  ASSERT_EQ(prepare_varkel(d.v), 0);
  ASSERT_EQ(d.acquire(), 0);
  ASSERT_EQ(get_acqStatus_fromBackend(d.v), 0);
  for (int m = 0; m < 4; ++m)
    EXPECT_EQ(+d.v->acq_status_return.noOfFrames[m], 2u);
}

} // namespace
