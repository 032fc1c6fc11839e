// The typical use, end to end, against the simulator running in this process, and
// around it: a missing chip and a link that stays down, saving, monitoring and
// re-initialisation, and a simulator started apart beside it. The records' fields
// are packed: the assertions take copies of them (unary +).
#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <numeric>
#include <thread>
#include <tuple>

#include "files.hpp"
#include "process.hpp"
#include "simulated_detector.hpp"

namespace {

using namespace std::chrono_literals;
namespace sim = varkel::sim;
using varkel::testing::exit_status;
using varkel::testing::spawn;

// Module 1 leads, the others follow its shutter output.
bool configure(varkel_t* v, float exposure, float period, int exposures)
{
  return set_acquireTime(v, exposure) == 0 && set_periodTime(v, period) == 0 &&
         set_numberExposures(v, exposures) == 0 &&
         define_master_module(v, 1, false, VARKEL_TRIGGER_MODE_EXTERNAL_POS_EDGE) == 0;
}

// execute_acquire, status_acquire until done, the data server's status, the sample frame.
bool acquire(varkel_t* v)
{
  bool ok = US_NumExposuresCounter_RBV(v) == 0 && execute_acquire(v) == 0;
  for (auto end = std::chrono::steady_clock::now() + 20s; ok && status_acquire(v) != DONE_ACQ;
       std::this_thread::sleep_for(1ms))
    ok = std::chrono::steady_clock::now() < end;
  ok = ok && US_NumExposuresCounter_RBV(v) == 0 && get_acqStatus_fromBackend(v) == 0;
  get_array_data(v);
  return ok;
}

// A library handle driving a simulator of the same model.
struct Detector : varkel::testing::SimulatedDetector {
  using SimulatedDetector::SimulatedDetector;
  // The typical use from the acquisition parameters to the sample frame: true when
  // every step succeeds. Models without a frame segment cannot be prepared.
  bool run(int exposures)
  {
    return configure(v, 0.004f, 0.008f, exposures) && prepare_varkel(v) == (sim.segment_name().empty() ? -1 : 0) &&
           acquire(v);
  }
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
  Detector d(varkel::testing::options_for(GetParam()));
  const int modules = d.sim.modules();
  ASSERT_TRUE(d.connected == 0 && d.run(4));
  EXPECT_EQ(d.v->acquireParam.numExposuresCounter, 4u);
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
  sim::Options o = varkel::testing::options_for(varkelQuad);
  o.missing = {{2, 30}};
  Detector d(o, [](varkel_t* v) { v->init_args.qpn[2] += 1; });
  ASSERT_EQ(d.connected, 0);

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

// Saving during an acquisition: the data server counts the frames it saved.
TEST(Controls, TheDataServerCountsWhatWasSaved)
{
  Detector d(varkel::testing::options_for(varkelTrio));
  ASSERT_TRUE(d.connected == 0 && configure(d.v, 0.004f, 0.008f, 3) && prepare_varkel(d.v) == 0);
  ASSERT_EQ(update_backend_acqArgs(d.v, VARKEL_MEDIPIX_MODE_DEFAULT, false, SAVE_DURING, true, 1, 5), 0);
  ASSERT_EQ(set_file_name_template(d.v, "/run.h5"), 0);
  d.v->acquireParam.numCapture = 1;
  ASSERT_EQ(send_acqArgs_toBackend(d.v), 0);
  ASSERT_TRUE(acquire(d.v));
  uint64_t saved = 0;
  ASSERT_EQ(get_saveStatus_fromBackend(d.v, &saved), 0);
  EXPECT_EQ(std::tuple(saved, +d.v->saveargs.done, +d.v->saveargs.savedFrameNum), std::tuple(1u, +DONE, 3u));
}

// Presence check, re-initialisation with the example DAC files and temperatures,
// module 3 lacking chip 17.
TEST(Monitoring, PresenceResetAndTemperaturesOnTheSimulator)
{
  varkel::testing::SimulatedDetector d(varkel::testing::options_without_frame(varkelQuad, {{3, 17}}));
  varkel_t* v = d.v;
  ASSERT_EQ(d.connected | check_and_disable_sensors(v), 0);
  for (int m = 0; m < 4; ++m)
    for (int c = 0; c < 36; ++c)
      EXPECT_EQ(v->sensor_disabled[m][c], m == 2 && c == 16) << m << ":" << c;

  // A reset drops the links; the re-initialisation brings them back and loads the files.
  const auto reset_and_init = [&] {
    return varkel::testing::in_directory(VARKEL_SOURCE_DIR,
                                         [&] { return varkel_reset_and_init(v, "examples/dacs/index.ini"); });
  };
  EXPECT_EQ(reset_and_init(), 0);
  for (int m = 1; m <= 4; ++m)
    EXPECT_TRUE(d.sim.module(m).link_up) << m;

  // Temperatures: plausible, warmer chips than boards, a spread between modules.
  EXPECT_EQ(US_GetTemperature(v) | US_GetMFBTemperature(v), 0);
  const auto& p = v->varkelParam;
  for (int m = 0; m < 4; ++m) {
    const auto [low, high] = std::minmax_element(std::begin(p.mfb_temperature[m]), std::end(p.mfb_temperature[m]));
    EXPECT_TRUE(*low > 20.0f && *high < p.avg_chip_temperature[m] && p.avg_chip_temperature[m] < 50.0f) << m;
  }
  EXPECT_LT(p.avg_chip_temperature[0], p.avg_chip_temperature[3]);

  // Module 1 unreachable: the later steps still run, the files still reach module 2.
  ::close(v->fd[0]);
  v->fd[0] = 0;
  const uint64_t before = d.sim.commands(2);
  EXPECT_EQ(reset_and_init(), ENOTCONN);
  EXPECT_EQ(d.sim.commands(2) - before, 1 + 14 + 36 * 6u);
}

// varkel-sim started apart, as a user would, what it prints read until it is
// ready or ends.
struct SimProcess {
  explicit SimProcess(std::vector<std::string> args)
  {
    args.insert(args.begin(), VARKEL_SIM);
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0)
      return;
    pid = spawn(args, out[1]);
    close(out[1]);
    FILE* in = fdopen(out[0], "r");
    unsigned port = 0;
    for (char line[256]; output.find("\nready") == std::string::npos && std::fgets(line, sizeof line, in);) {
      output += line;
      if (std::sscanf(line, " module %*d controller on %*[^:]:%u", &port) == 1)
        module_ports.push_back(static_cast<uint16_t>(port));
      if (std::sscanf(line, " data server on %*[^:]:%u", &port) == 1)
        data_port = static_cast<uint16_t>(port);
    }
    std::fclose(in); // what it prints later goes nowhere
  }
  ~SimProcess()
  {
    if (pid > 0 && kill(pid, SIGTERM) == 0)
      exit_status(pid);
  }
  pid_t pid = -1;
  std::string output;
  std::vector<uint16_t> module_ports;
  uint16_t data_port = 0;
};

// Two simulators, each with a segment of its own, deliver their own frames: one
// started apart, found by its identity alone (chip 1 of module 1 dark), and one in
// this process. A third on the first one's segment refuses to start.
TEST(Isolation, TwoSimulatorsSideBySideEachDeliverTheirOwnFrame)
{
  const std::string name = sim::own_segment_name();
  const SimProcess apart({"--port", "0", "--data-port", "0", "--shm-name", name, "--missing-chip", "1:1"});
  ASSERT_EQ(apart.module_ports.size(), 4u) << apart.output;
  const SimProcess third({"--port", "0", "--data-port", "0", "--shm-name", name});
  EXPECT_EQ(exit_status(third.pid), 1);
  EXPECT_EQ(third.output, "varkel-sim: segment " + name + " is in use by another simulator (pid " +
                              std::to_string(apart.pid) + ")\n");

  const char* hosts[4] = {"127.0.0.1", "127.0.0.1", "127.0.0.1", "127.0.0.1"};
  const std::unique_ptr<varkel_t, void (*)(varkel_t*)> v(varkel_new(varkelQuad), varkel_delete);
  ASSERT_EQ(varkel_connect_backend(v.get(), "127.0.0.1", apart.data_port) |
                varkel_connect(v.get(), hosts, apart.module_ports.data()),
            0);
  EXPECT_EQ(varkel_identify(v.get(), nullptr, 0), 1);
  // The command line acquires from the simulator apart while this process
  // acquires from its own, each about a second.
  std::vector<std::string> cli = {VARKEL_CLI, "--data-server", "127.0.0.1:" + std::to_string(apart.data_port)};
  for (uint16_t port : apart.module_ports)
    cli.insert(cli.end(), {"--module", "127.0.0.1:" + std::to_string(port)});
  cli.insert(cli.end(), {"acquire", "--exposures", "100", "--exposure", "0.004", "--period", "0.01"});
  const int quiet = open("/dev/null", O_WRONLY | O_CLOEXEC);
  const pid_t side = spawn(cli, quiet);
  close(quiet);
  Detector d(varkel::testing::options_for(varkelQuad));
  ASSERT_TRUE(configure(d.v, 0.004f, 0.01f, 100) && prepare_varkel(d.v) == 0 && acquire(d.v));
  EXPECT_EQ(exit_status(side), 0);
  ASSERT_TRUE(configure(v.get(), 0.004f, 0.008f, 4) && prepare_varkel(v.get()) == 0 && acquire(v.get()));
  const std::span<const int32_t> other(v->sample_frame, v->frame_size);
  EXPECT_EQ(std::pair(chip_sum(other, 24), chip_sum(other, 25) > 0), std::pair(int64_t{0}, true));
  const auto frame = d.sim.frame();
  EXPECT_EQ(std::memcmp(d.v->sample_frame, frame.data(), frame.size_bytes()), 0);
  EXPECT_GT(chip_sum(frame, 24), 0);
}

} // namespace
