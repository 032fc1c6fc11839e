// The data-server link against a loopback data server: handshake, exchanges,
// failure paths, concurrency and the shared frame buffer.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "fake_data_server.hpp"
#include "varkel.h"

using namespace varkel::testing;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

namespace {

// The handle a death test's exit report looks at.
varkel_t* g_handle = nullptr;

// Some replies make the library end the process with status 0: inside a test
// that is a failure, never a pass. Death tests say when they expect it.
bool g_in_test = false;
bool g_exit_expected = false;
struct ExitGuard : testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override { g_in_test = true; }
  void OnTestEnd(const testing::TestInfo&) override { g_in_test = false; }
};
const bool g_exit_guard = [] {
  testing::UnitTest::GetInstance()->listeners().Append(new ExitGuard);
  std::atexit([] {
    if (g_in_test && !g_exit_expected) {
      std::fputs("\nthe process ended inside a test\n", stderr);
      _exit(1);
    }
  });
  return true;
}();

std::string bytes(const void* p, std::size_t n) { return {static_cast<const char*>(p), n}; }
std::string bytes(const Record& r) { return bytes(r.data(), r.size()); }
std::string zeros(std::size_t n) { return std::string(n, '\0'); }

// A handle connected to its own fake data server.
struct Session {
  FakeDataServer fake;
  varkel_t* v;
  explicit Session(varkel_detector_model_t model = varkelQuad, FakeDataServer::Handler handler = nullptr)
      : fake(std::move(handler)), v(varkel_new(model))
  {
    g_handle = v;
    EXPECT_EQ(varkel_connect_backend(v, "127.0.0.1", fake.port()), 0);
  }
  ~Session()
  {
    varkel_delete(v);
    g_handle = nullptr;
  }
};

struct Exchange {
  const char* name;
  std::function<int(varkel_t*)> run;
};

char g_geometry[] = "/etc/varkel/geometry.json";
const Exchange kAcquireArgs{"ACQUIRE_ARGS", send_acqArgs_toBackend};
const Exchange kAcquireStatus{"ACQUIRE_STATUS", get_acqStatus_fromBackend};
const Exchange kSaveStatus{"SAVE_STATUS", [](varkel_t* v) {
                             uint64_t saved = 0;
                             return get_saveStatus_fromBackend(v, &saved);
                           }};
const Exchange kAbortSave{"ABORT_SAVE", abort_save};
const Exchange kStopAcquire{"STOP_ACQUIRE", send_stopAcquire_toBackend};
const Exchange kGeometry{"GEOMETRY", [](varkel_t* v) { return send_geometryFile_toBackend(v, g_geometry); }};

// Runs `exchange` with the output captured; returns its result and stdout.
std::pair<int, std::string> run_captured(const Exchange& exchange, varkel_t* v)
{
  CaptureStdout();
  const int rc = exchange.run(v);
  return {rc, GetCapturedStdout()};
}

// Escapes `text` for a death-test regular expression.
std::string literal(const std::string& text)
{
  std::string out;
  for (char c : text) {
    if (std::string_view("\\^$.|?*+()[]{}").find(c) != std::string_view::npos)
      out += '\\';
    out += c;
  }
  return out;
}

// Runs in a death-test child: whatever it prints reaches the checked stream,
// and the state at exit is reported after it.
void run_until_exit(const Exchange& exchange)
{
  dup2(STDERR_FILENO, STDOUT_FILENO);
  g_exit_expected = true;
  std::atexit([] {
    std::fflush(stdout);
    const bool free = pthread_mutex_trylock(&g_handle->backend_socket_mutex) == 0;
    std::fprintf(stderr, "<lock %s, socket %s>", free ? "free" : "held",
                 g_handle->backend_socket == -1 ? "closed" : "open");
  });
  exchange.run(g_handle);
}

} // namespace

TEST(DataServer, HandshakeKeepsRecordAcknowledgesAndReconnectCloses)
{
  Session s;
  const initArgs sent = sample_init_args();
  EXPECT_EQ(bytes(&s.v->init_args, 400), bytes(&sent, 400));
  ASSERT_TRUE(s.fake.wait_for_acks(1));
  EXPECT_EQ(bytes(s.fake.handshake_acks()[0]), zeros(400));

  FILE* trace = tmpfile();
  s.v->debug_out = trace;
  CaptureStdout();
  EXPECT_EQ(varkel_connect_backend(s.v, "127.0.0.1", s.fake.port()), 0);
  const std::string out = GetCapturedStdout();
  EXPECT_NE(out.find("-----------------------\nbe 1 qpn=100\nbe 2 qpn=101\n"), std::string::npos);
  EXPECT_NE(out.find("Module 2 BE gid==101112131415161718191a1b1c1d1e1f\n"), std::string::npos);
  EXPECT_NE(out.find("be 4 rkey=abc3\nSent ackhowledgement\n"), std::string::npos);
  EXPECT_EQ(s.fake.accepted(), 2);
  EXPECT_TRUE(s.fake.wait_for_acks(2));
  char line[64] = {};
  rewind(trace);
  ASSERT_NE(fgets(line, sizeof line, trace), nullptr);
  EXPECT_STREQ(line + 12, " [DISC] \n"); // after the "HH:MM:SS.mmm" stamp
  s.v->debug_out = nullptr;
  fclose(trace);
}

TEST(DataServer, RefusedHandshakeClosesAndAReconnectWorks)
{
  const struct {
    Trigger trigger;
    const char* printed;
  } cases[] = {
      {Trigger::short_record, "Error while receiving initial args. Returned value is 399\n"},
      {Trigger::close, "Error while receiving initial args. Returned value is 0\n"},
      {Trigger::reset, "Error while receiving initial args. Returned value is -1\n"},
      {Trigger::wrong_type, "initial arguments with wrong type paramter received 4\n"},
  };
  for (const auto& c : cases) {
    FakeDataServer fake;
    fake.set_greeting(sample_init_args(), c.trigger);
    varkel_t* v = varkel_new(varkelQuad);
    FILE* trace = tmpfile();
    v->debug_out = trace;
    CaptureStdout();
    CaptureStderr();
    EXPECT_EQ(varkel_connect_backend(v, "127.0.0.1", fake.port()), -1);
    const std::string err = GetCapturedStderr();
    EXPECT_NE(GetCapturedStdout().find(c.printed), std::string::npos) << c.printed;
    if (c.trigger == Trigger::reset) {
      EXPECT_NE(err.find("receive_initArgs_fromBackend: Connection reset by peer"), std::string::npos);
    }
    EXPECT_EQ(v->backend_socket, -1);
    EXPECT_EQ(fake.handshake_acks().size(), 0u);

    fake.set_greeting(sample_init_args());
    CaptureStdout();
    EXPECT_EQ(varkel_connect_backend(v, "127.0.0.1", fake.port()), 0) << c.printed;
    GetCapturedStdout();
    EXPECT_EQ(v->init_args.type, INIT_ARGS);
    varkel_delete(v);

    // One close for the refusal, one for the delete.
    std::string lines(4096, '\0');
    rewind(trace);
    lines.resize(fread(lines.data(), 1, lines.size(), trace));
    fclose(trace);
    EXPECT_EQ(lines.size(), 2 * std::string("00:00:00.000 [DISC] \n").size()) << lines;
    EXPECT_EQ(lines.substr(12, 9), " [DISC] \n");
  }
}

TEST(DataServer, RequestsAreByteExact)
{
  Session s(kinlet);
  CaptureStdout();
  CaptureStderr();
  // No frame buffer for this model: the arguments still go out.
  EXPECT_EQ(prepare_varkel(s.v), -1);
  EXPECT_EQ(GetCapturedStderr(), "Could not initialize shared memory.\n: No such device\nerror in init_array_data\n");
  s.v->acquireParam.numCapture = 0x11223344;
  send_acqArgs_toBackend(s.v);
  s.v->acquireParam.numCapture = -2;
  send_acqArgs_toBackend(s.v);
  for (const Exchange* x : {&kAcquireStatus, &kSaveStatus, &kAbortSave, &kStopAcquire, &kGeometry})
    EXPECT_EQ(x->run(s.v), 0) << x->name;
  GetCapturedStdout();

  const std::vector<Record> r = s.fake.requests();
  ASSERT_EQ(r.size(), 8u);
  const std::string prepared = std::string("\x01", 1) + zeros(8) + "Random string." + zeros(286) +
                               std::string("\x00\x00\x00\x01\x01\x00", 6) + zeros(8) + "\x05" + zeros(76);
  EXPECT_EQ(bytes(r[0]), prepared);
  EXPECT_EQ(bytes(r[1]).substr(1, 8), std::string("\x44\x33\x22\x11\0\0\0\0", 8));
  EXPECT_EQ(bytes(r[2]).substr(1, 8), std::string(8, '\xff').replace(0, 1, "\xfe"));
  EXPECT_EQ(bytes(r[1]).substr(9), prepared.substr(9));
  const char types[] = {ACQUIRE_STATUS, SAVE_STATUS, ABORT_SAVE, STOP_ACQUIRE};
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(bytes(r[3 + i]), std::string(1, types[i]) + zeros(399)) << int(types[i]);
  const std::string path = g_geometry;
  EXPECT_EQ(bytes(r[7]), "\x07" + path + zeros(399 - path.size()));
}

TEST(DataServer, RepliesAndTheirTexts)
{
  const struct {
    const Exchange* exchange;
    RecordReply reply;
    int rc;
    const char* printed;
  } cases[] = {
      {&kAcquireArgs, RecordReply::ack(), 0, "received ack on ACQUIRE_ARGS\n"},
      {&kAcquireArgs, RecordReply::nak(INVALID_GEOMETRY_FILE), -3,
       "Unexpected ack on ACQUIRE_ARGS. Expected ACK, and received NAK with error: Unknown error code\n"},
      {&kAcquireArgs, RecordReply::of(simpleArgs{ACK, INVALID_NUM_OF_ACQUISITIONS, {}}, Trigger::wrong_type), -3,
       "received NAK with error: Invalid number of acquisitions\n"},
      {&kStopAcquire, RecordReply::ack(), 0, "Received STOP_ACQUIRE response with status DONE\n"},
      {&kStopAcquire, RecordReply::nak(0), 0, "Received STOP_ACQUIRE response with status NOT_DONE\n"},
      {&kSaveStatus, RecordReply::of(saveStatusArgs{SAVE_STATUS, ERROR, {}, 12, 3, {}}), 0,
       "\n------------------------------\n Sending SAVE_STATUS request\n------------------------------\n"
       "Received SAVE_STATUS:\n            status=ERROR\n            Saved Frames=12\n"
       "            savedAquisitionNum=3\n"},
      {&kAbortSave, RecordReply::of(saveStatusArgs{SAVE_STATUS, NOT_DONE, {}, 5, 2, {}}), 0, "status=NOT DONE\n"},
      {&kGeometry, RecordReply::ack(), 0,
       " Sending GEOMETRY request\n---"
       "---------------------------\nreceived ack on GEOMETRY\n"},
  };
  for (const auto& c : cases) {
    Session s(varkelQuad, [&](const Record&) { return c.reply; });
    const auto [rc, out] = run_captured(*c.exchange, s.v);
    EXPECT_EQ(rc, c.rc) << c.exchange->name << " " << c.printed;
    EXPECT_NE(out.find(c.printed), std::string::npos) << out;
  }
}

TEST(DataServer, RepliesLandInTheirRecordsOnly)
{
  acqStatusArgs status{};
  status.type = 9; // not examined
  status.noOfFrames[3] = 0x0102030405060708ull;
  status.savedAquisitionNum = 77;
  Session s(varkelQuad, [&](const Record& request) {
    switch (request[0]) {
    case SAVE_STATUS:
      return RecordReply::of(saveStatusArgs{SAVE_STATUS, DONE, {}, 8, 4, {}});
    case ABORT_SAVE:
      return RecordReply::of(saveStatusArgs{SAVE_STATUS, DONE, {}, 1, 99, {}});
    case ACQUIRE_STATUS:
      return RecordReply::of(status, Trigger::oversized_record);
    default:
      return RecordReply::ack();
    }
  });
  const sensor before = s.v->sensor_pos;
  uint64_t saved = 0;
  std::string long_path(300, 'p');
  CaptureStdout();
  EXPECT_EQ(get_saveStatus_fromBackend(s.v, &saved), 0);
  EXPECT_EQ(saved, 4u);
  EXPECT_EQ(abort_save(s.v), 0);
  EXPECT_EQ(uint64_t{s.v->saveargs.savedAquisitionNum}, 4u); // the abort's reply is not kept
  // A geometry path that does not fit is refused and nothing goes out.
  EXPECT_EQ(send_geometryFile_toBackend(s.v, long_path.data()), 36);
  EXPECT_EQ(send_stopAcquire_toBackend(s.v), 0);
  // An oversized reply: its first 400 bytes are the reply, the rest is taken as
  // the next one; nothing lands outside the record.
  EXPECT_EQ(get_acqStatus_fromBackend(s.v), 0);
  EXPECT_EQ(bytes(&s.v->acq_status_return, 400), bytes(&status, 400));
  EXPECT_EQ(get_acqStatus_fromBackend(s.v), 0);
  EXPECT_EQ(bytes(&s.v->acq_status_return, 400), std::string(400, '\xee'));
  GetCapturedStdout();
  EXPECT_EQ(bytes(&s.v->sensor_pos, sizeof before), bytes(&before, sizeof before));
  const std::vector<Record> r = s.fake.requests();
  ASSERT_GE(r.size(), 3u);
  EXPECT_EQ(std::string({char(r[0][0]), char(r[1][0]), char(r[2][0])}), "\x03\x04\x05");
}

TEST(DataServer, ShortRepliesAndFailedSendsReturnMinusOne)
{
  const struct {
    const Exchange* exchange;
    Trigger trigger;
    const char* printed;
  } cases[] = {
      {&kStopAcquire, Trigger::short_record, "Error while receiving ack for STOP_ACQUIRE\n"},
      {&kStopAcquire, Trigger::reset, "Error while receiving ack for STOP_ACQUIRE\n"},
      {&kGeometry, Trigger::close, "Error while receiving ack for GEOMETRY\n"},
      {&kGeometry, Trigger::reset, "Error while receiving ack for GEOMETRY\n"},
  };
  for (const auto& c : cases) {
    Session s(varkelQuad, [&](const Record&) { return RecordReply::failure(c.trigger); });
    auto [rc, out] = run_captured(*c.exchange, s.v);
    EXPECT_EQ(rc, -1);
    EXPECT_NE(out.find(c.printed), std::string::npos) << out;
    if (c.trigger == Trigger::reset) {
      // The connection is gone: the next request cannot be sent.
      std::tie(rc, out) = run_captured(*c.exchange, s.v);
      EXPECT_EQ(rc, -1);
      EXPECT_NE(out.find(std::string("Error while sending ") + c.exchange->name + " request\n"), std::string::npos);
    }
  }
  // Never connected: every locked exchange fails to send and frees the lock.
  varkel_t* v = varkel_new(varkelQuad);
  for (const Exchange* x : {&kAcquireArgs, &kAcquireStatus, &kSaveStatus, &kStopAcquire, &kGeometry, &kStopAcquire}) {
    const auto [rc, out] = run_captured(*x, v);
    EXPECT_EQ(rc, -1) << x->name;
    EXPECT_NE(out.find(std::string("Error while sending ") + x->name + " request\n"), std::string::npos) << out;
  }
  varkel_delete(v);
}

TEST(DataServerDeathTest, FatalRepliesEndTheProcessWithTheLockFree)
{
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto save_status = [](Trigger t) {
    return [t](const Record& r) { return RecordReply::of(from_record<saveStatusArgs>(default_reply(r).record), t); };
  };
  const auto fail = [](Trigger t) { return [t](const Record&) { return RecordReply::failure(t); }; };
  const struct {
    const Exchange* exchange;
    FakeDataServer::Handler handler;
    std::string printed;
    const char* state;
  } cases[] = {
      {&kAcquireArgs, fail(Trigger::close), "Error while receiving ack for ACQUIRE_ARGS. Received: 0, Expected: 400\n",
       "<lock free, socket closed>"},
      {&kAcquireStatus, fail(Trigger::close), "Error while receiving ACQUIRE_STATUS return\n",
       "<lock free, socket closed>"},
      {&kSaveStatus, fail(Trigger::reset), "Error while receiving Save status args for SAVE_STATUS\n",
       "<lock free, socket closed>"},
      {&kSaveStatus, save_status(Trigger::wrong_type),
       "Unexpected response type on SAVE_STATUS. Expected 3, and received 4\n", "<lock free, socket open>"},
      {&kAbortSave, fail(Trigger::short_record), "Error while receiving ABORT_SAVE request acknowledgement\n",
       "<lock free, socket open>"},
      {&kAbortSave, save_status(Trigger::wrong_type),
       "Unexpected response type on SAVE_STATUS. Expected 3, and received 4\n", "<lock free, socket open>"},
      {&kGeometry, [](const Record&) { return RecordReply::nak(INVALID_GEOMETRY_FILE); },
       "Returned NAK with error : Invalid geometry file\n", "<lock free, socket open>"},
      {&kGeometry, [](const Record&) { return RecordReply::nak(INVALID_SAVE_PATH); },
       "Returned NAK with error : Invalid number of acquisition\n", "<lock free, socket open>"},
  };
  for (const auto& c : cases) {
    Session s(varkelQuad, c.handler);
    EXPECT_EXIT(run_until_exit(*c.exchange), testing::ExitedWithCode(0), literal(c.printed + c.state))
        << c.exchange->name;
  }
  // A 399-byte reply is counted as such.
  Session s(varkelQuad, [](const Record&) { return RecordReply::of(simpleArgs{}, Trigger::short_record); });
  EXPECT_EXIT(run_until_exit(kAcquireArgs), testing::ExitedWithCode(0),
              "send_acqArgs_toBackend: .*Received: 399, Expected: 400\n<lock free, socket closed>");
  varkel_t* never_connected = varkel_new(varkelQuad);
  g_handle = never_connected;
  EXPECT_EXIT(run_until_exit(kAbortSave), testing::ExitedWithCode(0),
              literal("Error while sending ABORT_SAVE request\n<lock free, socket closed>"));
  varkel_delete(never_connected);
}

TEST(DataServer, ConcurrentExchangesNeverInterleave)
{
  std::atomic<uint64_t> serial{0};
  Session s(varkelQuad, [&](const Record& request) {
    RecordReply reply = default_reply(request);
    if (request[0] == SAVE_STATUS) {
      saveStatusArgs status = from_record<saveStatusArgs>(reply.record);
      status.savedAquisitionNum = ++serial;
      reply.record = to_record(status);
    }
    return reply;
  });
  s.fake.set_reply_window(std::chrono::milliseconds(1));
  constexpr int kThreads = 4, kRounds = 15;
  std::vector<uint64_t> saved(kThreads * kRounds);
  std::atomic<int> failures{0};
  CaptureStdout();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        const int rc = get_acqStatus_fromBackend(s.v) | get_saveStatus_fromBackend(s.v, &saved[t * kRounds + i]) |
                       send_stopAcquire_toBackend(s.v);
        if (rc != 0)
          failures.fetch_add(1);
      }
    });
  }
  for (auto& t : threads)
    t.join();
  GetCapturedStdout();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(s.fake.overlaps(), 0);
  EXPECT_EQ(s.fake.request_count(), 3u * kThreads * kRounds);
  for (const Record& r : s.fake.requests())
    EXPECT_EQ(bytes(r).substr(1), zeros(399));
  // Each save status reply reached exactly one caller.
  EXPECT_EQ(std::set<uint64_t>(saved.begin(), saved.end()).size(), saved.size());
}

// The frame buffer lives under fixed names: these tests hold them while they
// create and remove segments.
class FrameBuffer : public testing::Test {
protected:
  void SetUp() override
  {
    ASSERT_TRUE(lock_.held());
    shm_unlink(kTrio);
    shm_unlink(kQuad);
  }
  void TearDown() override
  {
    shm_unlink(kTrio);
    shm_unlink(kQuad);
  }
  // Creates a segment of `size` bytes filled with a pixel pattern.
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
  static constexpr std::size_t kQuadBytes = 37748736, kTrioBytes = 9437184;
  ShmNamesLock lock_;
};

TEST_F(FrameBuffer, FrameIsCopiedAndRemappingDoesNotLeak)
{
  // The Trio segment holds just its frame: copying past it would fault.
  const struct {
    varkel_detector_model_t model;
    const char* name;
    std::size_t frame;
  } cases[] = {{varkelQuad, kQuad, kQuadBytes}, {varkelTrio, kTrio, kTrioBytes}};
  for (const auto& c : cases) {
    create(c.name, c.frame, 7);
    varkel_t* v = varkel_new(c.model);
    v->simulate = 1;
    ASSERT_EQ(init_array_data(v), 0);
    get_array_data(v);
    for (std::size_t i = 0; i < c.frame / 4; i += 4099)
      ASSERT_EQ(v->sample_frame[i], 7 + static_cast<int32_t>(i)) << i;
    EXPECT_EQ(v->sample_frame[c.frame / 4 - 1], 7 + static_cast<int32_t>(c.frame / 4 - 1));
    v->adata.sample_frame[5] = -1; // the segment is shared, not a snapshot
    ASSERT_EQ(init_array_data(v), 0);
    EXPECT_EQ(mappings_of(c.name), 1);
    get_array_data(v);
    EXPECT_EQ(v->sample_frame[5], -1);
    varkel_delete(v);
    EXPECT_EQ(mappings_of(c.name), 0);
  }
}

TEST_F(FrameBuffer, MissingOrUnusableSegmentsMapNothing)
{
  create(kQuad, 4096, 0); // smaller than one frame
  const struct {
    varkel_detector_model_t model;
    const char* printed;
    const char* error;
  } cases[] = {
      {varkelTrio, "/dev/shm/varkel_Trio_array_data_sim shared memory file not found\n",
       "Could not initialize shared memory.\n: No such file or directory\n"},
      {varkelQuad, "Shared memory file /dev/shm/varkel_Quad_array_data_sim is smaller than one frame",
       "Could not initialize shared memory.\n: Invalid argument\n"},
      {kinlet, "Detector model 0 has no shared memory file for array data.\n",
       "Could not initialize shared memory.\n: No such device\n"},
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
    get_array_data(v); // nothing to copy from: the frame stays as it was
    EXPECT_EQ(v->sample_frame[0], 42);
    varkel_delete(v);
  }
}

TEST_F(FrameBuffer, PrepareCombinesArgumentsAndMapping)
{
  create(kQuad, kQuadBytes, 1);
  for (const auto& [reply, rc] : {std::pair{RecordReply::ack(), 0}, std::pair{RecordReply::nak(1), -3}}) {
    Session s(varkelQuad, [reply = reply](const Record&) { return reply; });
    s.v->simulate = 1;
    CaptureStdout();
    EXPECT_EQ(prepare_varkel(s.v), rc);
    GetCapturedStdout();
    EXPECT_NE(s.v->adata.sample_frame, nullptr);
  }
  // A handle without its frame copy is left alone.
  varkel_t* v = varkel_new(varkelQuad);
  v->simulate = 1;
  std::free(v->sample_frame);
  v->sample_frame = nullptr;
  ASSERT_EQ(init_array_data(v), 0);
  get_array_data(v);
  varkel_delete(v);
}
