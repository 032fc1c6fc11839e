// End to end against the in-process simulator, beyond the typical use: every
// read-back lands in the handle, a stopped acquisition, a module whose transport
// parameters are wrong, the data server's acknowledgements and save status, and
// commands the controller refuses.
#include <cstdio>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

#include "e2e_detector.hpp"

// The records' fields are packed: the assertions take copies of them (unary +),
// never references.

namespace {

using namespace std::chrono_literals;
using varkel::e2e::Detector;
using varkel::e2e::model;

struct ReadBack {
  const char* name;
  std::function<int(varkel_t*)> act;
  std::function<bool(const varkel_t*)> landed;
};

// Each pair of calls runs through the simulator's reply and the library's parse of
// it: the value read back must be the one set.
TEST(Controls, EveryReadBackLandsInTheHandle)
{
  Detector d(model(varkelTrio));
  ASSERT_EQ(d.connect(), 0);
  const ReadBack cases[] = {
      {"acquisition time", [](varkel_t* v) { return US_AcquireTime(v, 0.25f) | US_AcquireTime_RBV(v); },
       [](const varkel_t* v) { return v->acquireParam.acquireTime == 0.25f; }},
      {"period", [](varkel_t* v) { return US_AcquirePeriod(v, 0.5f) | US_AcquirePeriod_RBV(v); },
       [](const varkel_t* v) { return v->acquireParam.acquirePeriod == 0.5f; }},
      {"exposures", [](varkel_t* v) { return US_NumExposures(v, 7) | US_NumExposures_RBV(v); },
       [](const varkel_t* v) { return v->acquireParam.numExposures == 7; }},
      {"read counter", [](varkel_t* v) { return US_ReadCounter(v, VARKEL_COUNTER_HIGH) | US_ReadCounter_RBV(v); },
       [](const varkel_t* v) { return v->varkelParam.read_counter == VARKEL_COUNTER_HIGH; }},
      {"image mode", [](varkel_t* v) { return US_ImageMode(v, VARKEL_IMAGE_MODE_CONTINUOUS); },
       [](const varkel_t* v) { return v->varkelParam.image_mode == VARKEL_IMAGE_MODE_CONTINUOUS; }},
      {"discard data", [](varkel_t* v) { return US_DiscardData(v, true) | US_DiscardData_RBV(v); },
       [](const varkel_t* v) { return v->varkelParam.discard_data; }},
      {"board", [](varkel_t* v) { return select_board(v, 1) | select_board_rbv(v); },
       [](const varkel_t* v) { return v->sensor_pos.mfb == 1; }},
      {"chip", [](varkel_t* v) { return select_chipNumber(v, 30) | US_ImgChipNumberID_RBV(v); },
       [](const varkel_t* v) { return v->sensor_pos.mfb == 0 && v->sensor_pos.chipId == 5; }},
      {"software trigger on", [](varkel_t* v) { return US_SoftawareTrigger(v, 1); },
       [](const varkel_t* v) { return v->varkelParam.software_trigger; }},
      {"software trigger off", [](varkel_t* v) { return US_SoftawareTrigger(v, 0); },
       [](const varkel_t* v) { return !v->varkelParam.software_trigger; }},
      {"idle state", [](varkel_t* v) { return US_DetectorState_RBV(v) | US_Acquire_RBV(v); },
       [](const varkel_t* v) {
         return std::strcmp(v->acquireParam.detectorState, "Idle") == 0 && !v->acquireParam.acquireState;
       }},
  };
  for (const ReadBack& c : cases) {
    EXPECT_EQ(c.act(d.v), 0) << c.name;
    EXPECT_TRUE(c.landed(d.v)) << c.name;
  }

  // The module's efuse read-back names the selected chip's efuse register.
  ASSERT_EQ(select_chipNumber(d.v, 13), 0);
  ASSERT_EQ(efuseid_rbv(d.v), 0);
  ASSERT_EQ(read_mb_reg(d.v, 0 * 4096 + 0x18, VARKEL_THREAD_MAIN), 0);
  char expected[16];
  std::snprintf(expected, sizeof expected, "%x", static_cast<unsigned>(d.v->mb_reg[VARKEL_THREAD_MAIN]));
  EXPECT_NE(d.v->mb_reg[VARKEL_THREAD_MAIN], 0);
  EXPECT_STREQ(d.v->varkelParam.efuseID, expected);
}

TEST(Controls, AStoppedAcquisitionStopsCountingFrames)
{
  Detector d(model(varkelQuad));
  ASSERT_EQ(d.connect(), 0);
  // Twelve seconds long, and the library's timer (exposures x time) would fire after
  // ten: the test is over long before either, even under a sanitizer.
  ASSERT_EQ(d.configure(0.05f, 0.06f, 200), 0);
  ASSERT_EQ(prepare_varkel(d.v), 0);
  ASSERT_EQ(execute_acquire(d.v), 0);
  const auto deadline = std::chrono::steady_clock::now() + 10s;
  do {
    ASSERT_EQ(get_acqStatus_fromBackend(d.v), 0);
    ASSERT_LT(std::chrono::steady_clock::now(), deadline);
  } while (d.v->acq_status_return.noOfFrames[0] < 2);
  ASSERT_EQ(US_DetectorState_RBV(d.v), 0);
  EXPECT_STREQ(d.v->acquireParam.detectorState, "Acquiring");

  EXPECT_EQ(stop_acquire(d.v), STOPPED);
  ASSERT_EQ(get_acqStatus_fromBackend(d.v), 0);
  const acqStatusArgs at_stop = d.v->acq_status_return;
  // Three more periods: nothing may arrive after the stop.
  std::this_thread::sleep_for(180ms);
  ASSERT_EQ(get_acqStatus_fromBackend(d.v), 0);
  for (int m = 0; m < 4; ++m) {
    EXPECT_EQ(+d.v->acq_status_return.noOfFrames[m], +at_stop.noOfFrames[m]) << m;
    EXPECT_LT(+at_stop.noOfFrames[m], 200u) << m;
  }
  EXPECT_EQ(d.v->acq_status_return.done, 1);
  ASSERT_EQ(US_TimeRemaining_RBV(d.v), 0);
  EXPECT_EQ(d.v->acquireParam.timeRemaining, 0.0f);
  EXPECT_EQ(send_stopAcquire_toBackend(d.v), 0);
  EXPECT_EQ(d.v->ack.type, 0);
  // stop_acquire leaves the timer armed: disarm it, so that its signal does not cut
  // into an exchange of a later test.
  const itimerval off{};
  setitimer(ITIMER_REAL, &off, nullptr);
}

// The transport board checks nothing the library could see: the link just never
// comes up, and that module's frames never reach the data server.
TEST(Controls, AWrongTransportParameterKeepsThatModulesFramesAway)
{
  Detector d(model(varkelQuad));
  ASSERT_EQ(d.connect_backend(), 0);
  d.v->init_args.qpn[2] += 1;
  ASSERT_EQ(d.connect_modules(), 0);
  EXPECT_FALSE(d.sim.module(3).link_up);
  ASSERT_EQ(d.configure(0.004f, 0.008f, 3), 0);
  ASSERT_EQ(prepare_varkel(d.v), 0);
  const uint64_t taken_before = d.sim.module(3).exposures_taken;
  ASSERT_EQ(d.acquire(), 0);
  ASSERT_EQ(get_acqStatus_fromBackend(d.v), 0);
  const uint64_t expected[4] = {3, 3, 0, 3};
  for (int m = 0; m < 4; ++m)
    EXPECT_EQ(+d.v->acq_status_return.noOfFrames[m], expected[m]) << m;
  EXPECT_EQ(d.sim.module(3).exposures_taken - taken_before, 3u); // it did expose
  EXPECT_EQ(d.sim.module(3).frames_delivered, 0u);
}

struct AcqArgsCase {
  const char* name;
  uint8_t save_mode;
  const char* path;
  int captures;
  int acquisition_mode; // -1: what the readout mode gives
  int rc;
  uint8_t nak;
};

TEST(Controls, TheDataServerChecksTheAcquisitionArguments)
{
  Detector d(model(varkelTrio));
  ASSERT_EQ(d.connect_backend(), 0);
  const AcqArgsCase cases[] = {
      {"no save", NO_SAVE, "Random string.", 0, -1, 0, 0},
      {"save into a missing folder", SAVE_DURING, "/no-such-folder/run.h5", 3, -1, -3, INVALID_SAVE_PATH},
      {"save nothing", SAVE_DURING, "/run.h5", 0, -1, -3, INVALID_NUM_OF_ACQUISITIONS},
      {"save after", SAVE_AFTER, "/run.h5", 3, -1, 0, 0},
      {"unknown acquisition mode", NO_SAVE, "Random string.", 1, 7, -3, INVALID_AQUISITION_MODE},
  };
  for (const AcqArgsCase& c : cases) {
    ASSERT_EQ(update_backend_acqArgs(d.v, VARKEL_MEDIPIX_MODE_DEFAULT, false, c.save_mode, true, 1, 5), 0);
    ASSERT_EQ(set_file_name_template(d.v, c.path), 0);
    d.v->acquireParam.numCapture = c.captures;
    if (c.acquisition_mode >= 0)
      d.v->acq_args.aquisitionMode = static_cast<uint8_t>(c.acquisition_mode);
    EXPECT_EQ(send_acqArgs_toBackend(d.v), c.rc) << c.name;
    if (c.rc != 0) {
      EXPECT_EQ(d.v->ack.error, c.nak) << c.name;
    }
  }
}

TEST(Controls, SavingDuringTheAcquisitionCountsWhatWasSaved)
{
  Detector d(model(varkelTrio));
  ASSERT_EQ(d.connect(), 0);
  ASSERT_EQ(d.configure(0.004f, 0.008f, 3), 0);
  ASSERT_EQ(update_backend_acqArgs(d.v, VARKEL_MEDIPIX_MODE_DEFAULT, false, SAVE_DURING, true, 1, 5), 0);
  ASSERT_EQ(set_file_name_template(d.v, "/run.h5"), 0);
  d.v->acquireParam.numCapture = 1;
  ASSERT_EQ(send_acqArgs_toBackend(d.v), 0);
  ASSERT_EQ(d.acquire(), 0);
  uint64_t saved = 0;
  ASSERT_EQ(get_saveStatus_fromBackend(d.v, &saved), 0);
  EXPECT_EQ(saved, 1u);
  EXPECT_EQ(d.v->saveargs.done, DONE);
  EXPECT_EQ(+d.v->saveargs.savedFrameNum, 3u);
  EXPECT_EQ(abort_save(d.v), 0);

  char path[] = "/tmp/varkel-e2e-geometry-XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  const char json[] = "{\"modules\": 1}";
  ASSERT_EQ(write(fd, json, sizeof json - 1), static_cast<ssize_t>(sizeof json - 1));
  close(fd);
  EXPECT_EQ(send_geometryFile_toBackend(d.v, path), 0);
  unlink(path);
}

// A controller answers what it cannot do with a JSON-RPC error, which the library
// hands over as the result text.
TEST(Controls, RefusedCommandsComeBackAsJsonRpcErrors)
{
  Detector d(model(varkelLite));
  ASSERT_EQ(d.connect(), 0);
  const struct {
    const char* command;
    const char* expected;
  } cases[] = {
      {"HS_NoSuchCommand 1", "\"code\": -32601"},
      {"SelectMedipixBoard_Command 1 2", "No Medipix board 2"}, // one board on this model
      {"HS_AcquireTime_Command 2 0", "\"code\": -32602"},
      {"HS_NumExposures_Command 1 0", "at least 1"},
  };
  for (const auto& c : cases) {
    char reply[1024];
    ASSERT_EQ(query_and_cache(d.v, VARKEL_THREAD_MODULE1, reply, "%s", c.command), 0) << c.command;
    EXPECT_NE(std::strstr(reply, c.expected), nullptr) << c.command << " -> " << reply;
  }
}

} // namespace
