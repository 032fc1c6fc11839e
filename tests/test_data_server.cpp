// The data-server link against a loopback data server: handshake, exchanges,
// failure paths, concurrency and the shared frame buffer.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <set>
#include <string>
#include <sys/mman.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "ethernet.h"
#include "fake_data_server.hpp"
#include "process.hpp" // the exit guard
#include "varkel.h"

using namespace varkel::testing;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

namespace {

std::string bytes(const void* p, std::size_t n) { return {static_cast<const char*>(p), n}; }
std::string bytes(const Record& r) { return bytes(r.data(), r.size()); }
std::string zeros(std::size_t n) { return std::string(n, '\0'); }

// A handle connected to its own fake data server.
struct Session {
  FakeDataServer fake;
  varkel_t* v;
  explicit Session(FakeDataServer::Handler handler = nullptr, varkel_detector_model_t model = varkelQuad)
      : fake(std::move(handler)), v(varkel_new(model))
  {
    EXPECT_EQ(varkel_connect_backend(v, "127.0.0.1", fake.port()), 0);
  }
  ~Session() { varkel_delete(v); }
};

std::string g_geometry(299, 'g'); // the longest path that fits

} // namespace

TEST(DataServer, HandshakeRefusalClosesAndTheAcceptedRecordIsKeptAndAcknowledged)
{
  FakeDataServer fake;
  varkel_t* v = varkel_new(varkelQuad);
  FILE* trace = v->debug_out = tmpfile();
  // Transport faults of the greeting are in the fault table; here its judgement.
  fake.spoil_greeting(Trigger::wrong_type);
  CaptureStdout();
  EXPECT_EQ(varkel_connect_backend(v, "127.0.0.1", fake.port()), -1);
  EXPECT_NE(GetCapturedStdout().find("initial arguments with wrong type paramter received 4\n"), std::string::npos);
  EXPECT_EQ(v->backend_socket, -1);
  fake.spoil_greeting(Trigger::none);
  for (int i = 0; i < 2; ++i) { // the second connection closes the first
    CaptureStdout();
    EXPECT_EQ(varkel_connect_backend(v, "127.0.0.1", fake.port()), 0);
    EXPECT_EQ(receive_timeout_us(v->backend_socket), 300000000); // the data server's receive time-out
    EXPECT_EQ(GetCapturedStdout(),
              "\n-----------------------\n   Received init args\n-----------------------\n"
              "be 1 qpn=100\nbe 2 qpn=101\nbe 3 qpn=102\nbe 4 qpn=103\n"
              "fe 1 mac=fe0000000001\nfe 2 mac=fe0000000002\nfe 3 mac=fe0000000003\nfe 4 mac=fe0000000004\n"
              "be 1 mac=be0000000001\nbe 2 mac=be0000000002\nbe 3 mac=be0000000003\nbe 4 mac=be0000000004\n"
              "Module 1 FE gid==f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff\nModule 2 FE gid==e0e1e2e3e4e5e6e7e8e9eaebecedeeef\n"
              "Module 3 FE gid==d0d1d2d3d4d5d6d7d8d9dadbdcdddedf\nModule 4 FE gid==c0c1c2c3c4c5c6c7c8c9cacbcccdcecf\n"
              "Module 1 BE gid==0123456789abcdef\nModule 2 BE gid==101112131415161718191a1b1c1d1e1f\n"
              "Module 3 BE gid==202122232425262728292a2b2c2d2e2f\nModule 4 BE gid==303132333435363738393a3b3c3d3e3f\n"
              "be 1 vaddr=7f0000000000\nbe 2 vaddr=7f0000001000\nbe 3 vaddr=7f0000002000\nbe 4 vaddr=7f0000003000\n"
              "be 1 rkey=abc0\nbe 2 rkey=abc1\nbe 3 rkey=abc2\nbe 4 rkey=abc3\nSent ackhowledgement\n");
  }
  const initArgs sent = sample_init_args();
  EXPECT_EQ(bytes(&v->init_args, 400), bytes(&sent, 400));
  // Only the accepted greetings are acknowledged, each with an ACK and 399 zeros.
  const std::vector<Record> acks = fake.acks(2);
  EXPECT_EQ(acks, std::vector<Record>(2, Record{}));
  varkel_delete(v);
  // One close for the refusal, the reconnection and the delete.
  std::string lines(4096, '\0');
  rewind(trace);
  lines.resize(fread(lines.data(), 1, lines.size(), trace));
  fclose(trace);
  ASSERT_EQ(lines.size(), 3 * std::string("00:00:00.000 [DISC] \n").size()) << lines;
  for (std::size_t at = 12; at < lines.size(); at += 21)
    EXPECT_EQ(lines.substr(at, 9), " [DISC] \n"); // after the "HH:MM:SS.mmm" stamp
}

TEST(DataServer, RequestsAreByteExactAndRepliesLandInTheirRecordsOnly)
{
  acqStatusArgs status{};
  status.type = 9; // not examined
  status.noOfFrames[3] = 0x0102030405060708ull;
  status.savedAquisitionNum = 77;
  Session s(
      [&](const Record& request) {
        if (request[0] == ACQUIRE_STATUS)
          return RecordReply::of(status, Trigger::oversized_record);
        if (request[0] == SAVE_STATUS || request[0] == ABORT_SAVE)
          return RecordReply::of(saveStatusArgs{SAVE_STATUS, DONE, {}, 8, request[0] == SAVE_STATUS ? 4u : 9u, {}});
        return RecordReply::ack();
      },
      kinlet);
  const sensor before = s.v->sensor_pos;
  CaptureStdout();
  CaptureStderr();
  // No frame buffer for this model: the arguments still go out.
  EXPECT_EQ(prepare_varkel(s.v), -1);
  EXPECT_EQ(GetCapturedStderr(), "Could not initialize shared memory.\n: No such device\nerror in init_array_data\n");
  s.v->acquireParam.numCapture = 0x11223344;
  update_backend_acqArgs(s.v, VARKEL_MEDIPIX_MODE_DUAL_ENERGY, true, SAVE_AFTER, true, 0x1234, 3);
  const std::string longest(299, 'n');
  EXPECT_EQ(set_file_name_template(s.v, longest.c_str()), 0);
  EXPECT_EQ(set_file_name_template(s.v, std::string(300, 'x').c_str()), 36); // changes nothing
  send_acqArgs_toBackend(s.v);
  EXPECT_EQ(set_file_name_template(s.v, "run_%04d.h5"), 0);
  EXPECT_STREQ(s.v->file_template, "run_%04d.h5");
  s.v->acquireParam.numCapture = -2;
  send_acqArgs_toBackend(s.v);
  // A geometry path must leave room for its terminating zero: refused, nothing is sent.
  EXPECT_EQ(send_geometryFile_toBackend(s.v, std::string(300, 'p').data()), 36);
  uint64_t saved = 0;
  EXPECT_EQ(get_saveStatus_fromBackend(s.v, &saved), 0);
  EXPECT_EQ(saved, 4u);
  EXPECT_EQ(abort_save(s.v), 0);
  EXPECT_EQ(uint64_t{s.v->saveargs.savedAquisitionNum}, 4u); // the abort's reply is not kept
  EXPECT_EQ(send_stopAcquire_toBackend(s.v), 0);
  EXPECT_EQ(send_geometryFile_toBackend(s.v, g_geometry.data()), 0);
  // An oversized reply: its first 400 bytes are the reply, the rest is taken as
  // the next one; nothing lands outside the record.
  EXPECT_EQ(get_acqStatus_fromBackend(s.v), 0);
  EXPECT_EQ(bytes(&s.v->acq_status_return, 400), bytes(&status, 400));
  EXPECT_EQ(get_acqStatus_fromBackend(s.v), 0);
  EXPECT_EQ(bytes(&s.v->acq_status_return, 400), std::string(400, '\xee'));
  EXPECT_EQ(bytes(&s.v->sensor_pos, sizeof before), bytes(&before, sizeof before));
  GetCapturedStdout();

  // The last request may not be recorded yet: its reply was there before it went out.
  const std::vector<Record> r = s.fake.requests();
  ASSERT_GE(r.size(), 8u);
  std::string types;
  for (int i = 0; i < 8; ++i)
    types += static_cast<char>(r[i][0]);
  ASSERT_EQ(types, "\x01\x01\x01\x03\x04\x05\x07\x02");
  EXPECT_EQ(bytes(r[0]), "\x01" + zeros(8) + "Random string." + zeros(286) + std::string("\0\0\0\x01\x01\0", 6) +
                             zeros(8) + "\x05" + zeros(76));
  // The 64-bit count at offset 1, little-endian, then the name and the settings.
  EXPECT_EQ(bytes(r[1]), "\x01" + std::string("\x44\x33\x22\x11\0\0\0\0", 8) + longest + zeros(1) +
                             "\x01\x02\x02\x01\x34\x12" + zeros(8) + "\x03" + zeros(76));
  // A shorter name leaves no tail of the longer one.
  EXPECT_EQ(bytes(r[2]), "\x01" + std::string(8, '\xff').replace(0, 1, "\xfe") + "run_%04d.h5" + zeros(289) +
                             bytes(r[1]).substr(309));
  for (int i : {3, 4, 5, 7})
    EXPECT_EQ(bytes(r[i]).substr(1), zeros(399)) << i; // the type, then 399 zeros
  EXPECT_EQ(bytes(r[6]), "\x07" + g_geometry + zeros(100));
}

TEST(DataServer, ConcurrentExchangesNeverInterleave)
{
  std::atomic<uint64_t> serial{0};
  Session s([&](const Record& request) {
    // Numbered save statuses: each must reach exactly one caller.
    if (request[0] == SAVE_STATUS)
      return RecordReply::of(saveStatusArgs{SAVE_STATUS, DONE, {}, 0, ++serial, {}});
    return RecordReply::ack();
  });
  s.fake.set_reply_window(std::chrono::milliseconds(1));
  constexpr int kThreads = 4, kRounds = 15;
  std::vector<uint64_t> saved(kThreads * kRounds);
  CaptureStdout();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i)
        EXPECT_EQ(get_acqStatus_fromBackend(s.v) | get_saveStatus_fromBackend(s.v, &saved[t * kRounds + i]) |
                      send_stopAcquire_toBackend(s.v),
                  0);
    });
  for (auto& t : threads)
    t.join();
  GetCapturedStdout();
  EXPECT_EQ(s.fake.overlaps(), 0);
  const std::vector<Record> requests = s.fake.requests();
  EXPECT_EQ(requests.size(), 3u * kThreads * kRounds);
  EXPECT_EQ(std::set<uint64_t>(saved.begin(), saved.end()).size(), saved.size());
}

// The acquisition timer's signal reaches the waiting caller between the two parts
// of each record: the handshake, STOP and SAVE_STATUS still get their whole record,
// and the wait as a whole keeps the socket's time-out however often it is cut.
TEST(DataServer, RecordsSplitByTheTimerSignalArriveWholeWithinOneTimeout)
{
  wait_toStart_polling(3600.0f); // the library's SIGALRM handler, without SA_RESTART
  const itimerval off{};
  setitimer(ITIMER_REAL, &off, nullptr);
  const pthread_t caller = pthread_self();
  std::atomic<int> pauses{1}; // before the second part, each 50 ms and then a signal
  FakeDataServer fake([](const Record& request) {
    if (request[0] == SAVE_STATUS)
      return RecordReply::of(saveStatusArgs{SAVE_STATUS, DONE, {}, 6, 5, {}}, Trigger::split_record);
    return RecordReply::of(simpleArgs{ACK, 0, {}}, Trigger::split_record);
  });
  fake.set_between_parts([&pauses, caller] {
    for (int i = pauses; i > 0; --i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50)); // the caller waits in its receive
      pthread_kill(caller, SIGALRM);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  });
  fake.spoil_greeting(Trigger::split_record);
  varkel_t* v = varkel_new(varkelQuad);
  CaptureStdout();
  start_polling = 0;
  EXPECT_EQ(varkel_connect_backend(v, "127.0.0.1", fake.port()), 0);
  EXPECT_EQ(start_polling, 1); // the signal did arrive
  const initArgs sent = sample_init_args();
  EXPECT_EQ(bytes(&v->init_args, 400), bytes(&sent, 400));
  EXPECT_EQ(send_stopAcquire_toBackend(v), 0);
  uint64_t saved = 0;
  EXPECT_EQ(get_saveStatus_fromBackend(v, &saved), 0);
  EXPECT_EQ(saved, 5u);
  // 200 ms of time-out against a second part 500 ms late: a wait that started
  // over at each signal would get the whole record.
  ASSERT_EQ(set_timeout(v->backend_socket, 200000), 0);
  pauses = 10;
  EXPECT_EQ(send_stopAcquire_toBackend(v), -1);
  const std::string out = GetCapturedStdout();
  for (const char* line :
       {"Received STOP_ACQUIRE response with status DONE\n", "Error while receiving ack for STOP_ACQUIRE\n"})
    EXPECT_NE(out.find(line), std::string::npos) << out;
  varkel_delete(v);
}

// The frame buffer lives under fixed names: these tests hold them while they
// create and remove segments.
class FrameBuffer : public testing::Test {
protected:
  void SetUp() override
  {
    ASSERT_TRUE(lock_.held());
    TearDown();
  }
  void TearDown() override
  {
    shm_unlink(kTrio);
    shm_unlink(kQuad);
  }
  // Creates a segment of `size` bytes holding seed, seed + 1, ... as pixels.
  static void create(const char* name, std::size_t size, int32_t seed)
  {
    const int fd = shm_open(name, O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0);
    auto* p = static_cast<int32_t*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    close(fd);
    for (std::size_t i = 0; i < size / 4; ++i)
      p[i] = seed + static_cast<int32_t>(i);
    munmap(p, size);
  }
  static int mappings_of(const char* name)
  {
    std::ifstream maps("/proc/self/maps");
    int n = 0;
    for (std::string line; std::getline(maps, line);)
      n += line.find(std::string("/dev/shm") + name) != std::string::npos;
    return n;
  }
  static constexpr const char* kTrio = "/varkel_Trio_array_data_sim";
  static constexpr const char* kQuad = "/varkel_Quad_array_data_sim";
  ShmNamesLock lock_;
};

TEST_F(FrameBuffer, PrepareMapsWhateverTheReplyAndFramesAreCopiedWithoutLeaks)
{
  const struct {
    varkel_detector_model_t model;
    const char* name;
    std::size_t frame;
    RecordReply reply;
    int rc;
    const char* error;
  } cases[] = {{varkelQuad, kQuad, 37748736, RecordReply::ack(), 0, ""},
               {varkelTrio, kTrio, 9437184, RecordReply::nak(1), -3,
                "error in send_acqArgs_toBackend\nerror in init_array_data\n"}};
  for (const auto& c : cases) {
    create(c.name, c.frame, 7);
    Session s([&](const Record&) { return c.reply; }, c.model);
    varkel_t* v = s.v;
    v->simulate = 1;
    CaptureStdout();
    CaptureStderr();
    EXPECT_EQ(prepare_varkel(v), c.rc);
    EXPECT_EQ(GetCapturedStderr(), c.error);
    GetCapturedStdout();
    v->adata.sample_frame[5] = -1; // the segment is shared, not a snapshot
    ASSERT_EQ(init_array_data(v), 0);
    EXPECT_EQ(mappings_of(c.name), 1);
    get_array_data(v);
    EXPECT_EQ(v->sample_frame[5], -1);
    std::free(v->sample_frame); // a handle without its frame copy is left alone
    v->sample_frame = nullptr;
    EXPECT_EQ(get_array_data(v), ENODATA);
  }
  EXPECT_EQ(mappings_of(kQuad) + mappings_of(kTrio), 0);
}

TEST_F(FrameBuffer, MissingOrUnusableSegmentsMapNothing)
{
  create(kQuad, 37748736 - 4, 0); // one pixel short of a frame, in bytes
  const struct {
    varkel_detector_model_t model;
    const char* printed;
    const char* error;
  } cases[] = {
      {varkelTrio, "/dev/shm/varkel_Trio_array_data_sim shared memory file not found\n",
       "Could not initialize shared memory.\n: No such file or directory\n"},
      {varkelQuad, "Shared memory file /dev/shm/varkel_Quad_array_data_sim is smaller than one frame",
       "Could not initialize shared memory.\n: Invalid argument\n"},
      {varkelLite, "Detector model 1 has no shared memory file for array data.\n",
       "Could not initialize shared memory.\n: No such device\n"},
  };
  for (const auto& c : cases) {
    varkel_t* v = varkel_new(c.model);
    v->simulate = 1;
    v->sample_frame[0] = 42;
    CaptureStdout();
    CaptureStderr();
    EXPECT_EQ(init_array_data(v), -1);
    EXPECT_EQ(GetCapturedStderr(), c.error);
    EXPECT_NE(GetCapturedStdout().find(c.printed), std::string::npos) << c.printed;
    EXPECT_EQ(v->adata.sample_frame, nullptr);
    EXPECT_EQ(get_array_data(v), ENODATA); // nothing to copy from: the frame stays as it was
    EXPECT_EQ(v->sample_frame[0], 42);
    varkel_delete(v);
  }
}

// The data server shrinks its segment before and while the frame is copied: the
// copy ends early with a code, and the process lives on.
TEST_F(FrameBuffer, ASegmentThatShrinksGivesACodeNotACrash)
{
  constexpr std::size_t kFrame = 9437184;
  create(kTrio, kFrame, 3);
  varkel_t* v = varkel_new(varkelTrio);
  v->simulate = 1;
  CaptureStdout();
  ASSERT_EQ(init_array_data(v), 0);
  GetCapturedStdout();
  const int fd = shm_open(kTrio, O_RDWR, 0);
  ASSERT_EQ(ftruncate(fd, 4096), 0);
  EXPECT_EQ(get_array_data(v), EIO);
  EXPECT_EQ(v->sample_frame[1023], 3 + 1023); // what is left is copied
  std::atomic<bool> done{false};
  std::thread shrinker([&] {
    for (off_t size = 4096; !done; size = kFrame + 4096 - size)
      ASSERT_EQ(ftruncate(fd, size), 0);
  });
  std::set<int> codes;
  for (int i = 0; i < 20; ++i)
    codes.insert(get_array_data(v));
  done = true;
  shrinker.join();
  codes.erase(0);
  codes.erase(EIO);
  EXPECT_TRUE(codes.empty()) << *codes.begin();
  shm_unlink(kTrio);
  EXPECT_EQ(get_array_data(v), ENOENT);
  close(fd);
  varkel_delete(v);
}
