// Hostile peers, cell by cell: each fault a controller or a data server can show,
// against each exchange it can break. A cell checks the code and the text
// printed, that the call returns in bounded time (a hang would be the 600 s or
// 300 s receive time-out), that the process ends where the design ends it
// (status 0) and lives everywhere else, and that no descriptor is left open.
#include <gtest/gtest.h>

#include <atomic>

#include <chrono>
#include <poll.h>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <vector>

#include "ethernet.h"
#include "fake_data_server.hpp"
#include "fake_detector.hpp"
#include "process.hpp"

using namespace std::chrono_literals;
using namespace varkel::testing;
using Clock = std::chrono::steady_clock;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

// ---------------------------------------------------------------------------
// The controller: one query, then a second one on the same connection.

struct QueryCell {
  const char* name;
  Reply reply;
  int rc;
  std::string text;                     // the first query's result text
  std::chrono::milliseconds at_least{}; // the wait the reply demands
  bool lives = true;                    // the connection serves the next query
};

TEST(ControllerFaults, EachReplyHasItsCodeTextAndWait)
{
  // 500 ms: the wait for the rest of a reply that arrived in part.
  const QueryCell cells[] = {
      {"whole", Reply::result("x"), 0, "x"},
      {"split within the wait", Reply::split(R"({"result":"two parts"})", 9, 100ms), 0, "two parts", 100ms},
      {"incomplete array completed", Reply::split(R"([{"result":"a"},{"b":1}])", 15, 100ms), 0, "", 100ms},
      {"dripped", Reply::bytewise(R"({"result":"slow but whole"})"), 0, "slow but whole"},
      {"tail later than the wait", Reply::split(R"({"result":"late"})", 5, 1500ms), 0, "", 500ms},
      {"oversized", Reply::oversize(1500), 0, ""},
      {"not JSON", Reply::not_json(), 0, ""},
      {"closed", Reply::close(), 0, "", 0ms, false},
      {"reset", Reply::reset(), -1, "", 0ms, false},
  };
  // The baseline is one bare exchange with a fake, outside the library: a query
  // that waited where it should not would otherwise inflate its own bound.
  Clock::duration baseline{};
  {
    FakeController peer;
    const int fd = connect_loopback(peer.port());
    const std::string request = R"({"jsonrpc":"2.0","method":"Q","id":1})";
    char reply[256];
    const auto start = Clock::now();
    ASSERT_EQ(send(fd, request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
    ASSERT_GT(recv(fd, reply, sizeof reply, 0), 0);
    baseline = Clock::now() - start;
    close(fd);
  }
  for (const QueryCell& c : cells) {
    SCOPED_TRACE(c.name);
    const int descriptors = open_descriptors();
    {
      FakeDetector det(kinlet);
      varkel_t* v = det.handle();
      det.answer_all([&](const Request& r) { return r.method == "Q" ? c.reply : Reply::result("next"); });
      char result[1024] = "untouched";
      // The library prints every exchange: kept off the test's own output.
      const auto query = [&](const char* command) {
        CaptureStdout();
        const int rc = query_and_cache(v, result, "%s", command);
        GetCapturedStdout();
        return rc;
      };
      const auto start = Clock::now();
      EXPECT_EQ(query("Q"), c.rc);
      const auto took = Clock::now() - start;
      EXPECT_EQ(result, c.rc == 0 ? c.text : "untouched");
      EXPECT_GE(took, c.at_least);
      // Never the continuation wait on top of what the reply demands, and never
      // the late tail: the bound is relative to a whole reply's time here.
      const auto limit = c.at_least == 500ms ? 1500ms : c.at_least + 400ms;
      EXPECT_LT(took, limit + 2 * baseline);
      if (c.lives) {
        // Whatever the first reply left behind is drained: the next query gets its own.
        pollfd p{v->fd[0], POLLIN, 0};
        if (c.at_least == 500ms) {
          EXPECT_EQ(poll(&p, 1, 5000), 1); // the late tail has arrived
        }
        EXPECT_EQ(query("N"), 0);
        EXPECT_STREQ(result, "next");
        EXPECT_EQ(det.module(1).commands(), (std::vector<std::string>{"Q", "N"}));
      } else {
        // A dead connection fails the next queries with an error number, never SIGPIPE.
        int rc = 0;
        for (int i = 0; i < 3 && rc <= 0; ++i)
          rc = query("N");
        EXPECT_TRUE(rc == EPIPE || rc == ECONNRESET) << rc;
      }
    }
    EXPECT_EQ(open_descriptors(), descriptors);
  }
}

// ---------------------------------------------------------------------------
// The data server: each exchange against each fault of its reply record, and
// against the whole replies it judges.

struct Fault {
  const char* name;
  Trigger trigger;
};
// The handshake has no request to spoil, and its time-out cannot be shortened
// before it waits: it has no silence and no dead-connection column.
const Fault kFaults[] = {{"whole", Trigger::none},         {"split", Trigger::split},
                         {"dripped", Trigger::drip},       {"oversized", Trigger::oversized_record},
                         {"short", Trigger::short_record}, {"closed", Trigger::close},
                         {"reset", Trigger::reset},        {"silent", Trigger::silence},
                         {"dead", Trigger::reset}}; // reset by an earlier exchange: the send fails

struct DataExchange {
  const char* name;
  int (*run)(varkel_t*); // nullptr: the handshake
  const char* receive_failed;
  const char* send_failed;
  // Per fault, in the order of kFaults: '0' returns 0, '-' returns -1, 'C' ends
  // the process with the socket closed, 'O' with the socket left open.
  const char* outcomes;
};

uint64_t g_saved;
std::string g_geometry = "/tmp/geometry.json";

const DataExchange kExchanges[] = {
    {"handshake", nullptr, "Error while receiving initial args", "", "0000---"},
    {"ACQUIRE_ARGS", send_acqArgs_toBackend, "Error while receiving ack for ACQUIRE_ARGS",
     "Error while sending ACQUIRE_ARGS request", "0000CCCC-"},
    {"ACQUIRE_STATUS", get_acqStatus_fromBackend, "Error while receiving ACQUIRE_STATUS return",
     "Error while sending ACQUIRE_STATUS request", "0000CCCC-"},
    {"SAVE_STATUS", [](varkel_t* v) { return get_saveStatus_fromBackend(v, &g_saved); },
     "Error while receiving Save status args for SAVE_STATUS", "Error while sending SAVE_STATUS request", "0000CCCC-"},
    {"ABORT_SAVE", abort_save, "Error while receiving ABORT_SAVE request acknowledgement",
     "Error while sending ABORT_SAVE request", "0000OOOOO"},
    {"STOP_ACQUIRE", send_stopAcquire_toBackend, "Error while receiving ack for STOP_ACQUIRE",
     "Error while sending STOP_ACQUIRE request", "0000-----"},
    {"GEOMETRY", [](varkel_t* v) { return send_geometryFile_toBackend(v, g_geometry.data()); },
     "Error while receiving ack for GEOMETRY", "Error while sending GEOMETRY request", "0000-----"},
};

struct DataCell {
  const DataExchange* exchange;
  const Fault* fault; // nullptr: `reply`, sent whole
  char outcome;       // as in DataExchange::outcomes, and '3' returns -3
  RecordReply reply{};
  const char* label = nullptr;
  const char* printed = nullptr; // what `reply` makes the exchange print, just before any end
};

std::vector<DataCell> data_cells()
{
  std::vector<DataCell> cells;
  for (const DataExchange& x : kExchanges)
    for (std::size_t f = 0; x.outcomes[f] != '\0'; ++f)
      cells.push_back({&x, &kFaults[f], x.outcomes[f]});
  // Whole replies the exchanges judge.
  const DataExchange &args = kExchanges[1], &save = kExchanges[3], &abort = kExchanges[4], &stop = kExchanges[5],
                     &geometry = kExchanges[6];
  const RecordReply ack = RecordReply::ack(),
                    save_type_4 = RecordReply::of(saveStatusArgs{SAVE_STATUS, DONE, {}, 1, 1, {}}, Trigger::wrong_type);
  const char* type_4 = "Unexpected response type on SAVE_STATUS. Expected 3, and received 4\n";
  const std::vector<DataCell> judged = {
      {&args, nullptr, 'C', RecordReply{Trigger::short_record}, "count", "Received: 399, Expected: 400\n"},
      {&save, nullptr, 'O', save_type_4, "type4", type_4},
      {&abort, nullptr, 'O', save_type_4, "type4", type_4},
      {&geometry, nullptr, 'O', RecordReply::nak(INVALID_GEOMETRY_FILE), "nak3",
       "Returned NAK with error : Invalid geometry file\n"},
      {&geometry, nullptr, 'O', RecordReply::nak(INVALID_SAVE_PATH), "nak0",
       "Returned NAK with error : Invalid number of acquisition\n"},
      {&args, nullptr, '0', ack, "ack", "received ack on ACQUIRE_ARGS\n"},
      {&args, nullptr, '3', RecordReply::of(simpleArgs{ACK, INVALID_GEOMETRY_FILE, {}}, Trigger::wrong_type), "nak",
       "Unexpected ack on ACQUIRE_ARGS. Expected ACK, and received NAK with error: Unknown error code\n"},
      {&stop, nullptr, '0', RecordReply::nak(0), "nak", "Received STOP_ACQUIRE response with status NOT_DONE\n"},
      {&save, nullptr, '0', RecordReply::of(saveStatusArgs{SAVE_STATUS, ERROR, {}, UINT64_MAX, 3, {}}), "error",
       "\n------------------------------\n Sending SAVE_STATUS request\n------------------------------\n"
       "Received SAVE_STATUS:\n            status=ERROR\n            Saved Frames=18446744073709551615\n"
       "            savedAquisitionNum=3\n"},
      {&abort, nullptr, '0', RecordReply::of(saveStatusArgs{SAVE_STATUS, NOT_DONE, {}, 5, 2, {}}), "not_done",
       "status=NOT DONE\n"},
      {&geometry, nullptr, '0', ack, "ack",
       " Sending GEOMETRY request\n------------------------------\nreceived ack on GEOMETRY\n"},
  };
  cells.insert(cells.end(), judged.begin(), judged.end());
  return cells;
}

class DataServerFaultDeathTest : public testing::TestWithParam<DataCell> {};

TEST_P(DataServerFaultDeathTest, Cell)
{
  GTEST_FLAG_SET(death_test_style, "threadsafe"); // the fake's threads serve the child too
  const DataCell& c = GetParam();
  const bool handshake = c.exchange->run == nullptr, dead = c.fault && std::string(c.fault->name) == "dead";
  const bool silent = c.fault && c.fault->trigger == Trigger::silence;
  const int descriptors = open_descriptors();
  {
    FakeDataServer fake(c.fault ? FakeDataServer::Handler{} : [r = c.reply](const Record&) { return r; });
    varkel_t* v = varkel_new(varkelQuad);
    int rc = 0;
    CaptureStdout();
    const auto start = Clock::now();
    if (handshake) {
      fake.spoil_greeting(c.fault->trigger);
      rc = varkel_connect_backend(v, "127.0.0.1", fake.port());
    } else {
      ASSERT_EQ(varkel_connect_backend(v, "127.0.0.1", fake.port()), 0);
      fake.spoil_replies(c.fault ? c.fault->trigger : Trigger::none);
      if (silent) {
        ASSERT_EQ(set_timeout(v->backend_socket, 200000), 0);
      }
      if (dead) {
        EXPECT_EQ(send_stopAcquire_toBackend(v), -1);
      }
    }
    const std::string failed = c.printed ? c.printed : dead ? c.exchange->send_failed : c.exchange->receive_failed;
    if (c.outcome == 'C' || c.outcome == 'O') {
      GetCapturedStdout();
      const std::string ends = c.outcome == 'C' ? "<lock free, socket closed>" : "<lock free, socket open>";
      EXPECT_EXIT(run_until_exit(v, c.exchange->run), testing::ExitedWithCode(0),
                  failed + (c.printed ? "" : "(.|\n)*") + ends);
    } else {
      if (!handshake)
        rc = c.exchange->run(v);
      const auto took = Clock::now() - start;
      const std::string out = GetCapturedStdout();
      EXPECT_EQ(rc, c.outcome == '0' ? 0 : c.outcome == '3' ? -3 : -1);
      EXPECT_EQ(out.find(failed) != std::string::npos, c.printed || c.outcome == '-') << out;
      EXPECT_LT(took, 5s);
      if (silent) {
        EXPECT_GE(took, 200ms);
      }
      EXPECT_EQ(pthread_mutex_trylock(&v->backend_socket_mutex), 0);
      pthread_mutex_unlock(&v->backend_socket_mutex);
    }
    varkel_delete(v);
  }
  EXPECT_EQ(open_descriptors(), descriptors);
}

INSTANTIATE_TEST_SUITE_P(Cells, DataServerFaultDeathTest, testing::ValuesIn(data_cells()), [](const auto& info) {
  return std::string(info.param.exchange->name) + "_" + (info.param.fault ? info.param.fault->name : info.param.label);
});

// The peers' own plumbing: a server out of descriptors, whose accept fails at
// once every time, backs off instead of spinning.
TEST(LoopbackServerDeathTest, FailingAcceptDoesNotSpin)
{
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto starve = [] {
    std::atomic<bool> session_running{false};
    LoopbackServer server([&](int fd) { // holds its descriptor
      session_running = true;
      char byte;
      recv(fd, &byte, 1, 0);
    });
    ASSERT_GE(connect_loopback(server.port()), 0); // its session holds the last descriptor
    // The session thread must be running before the limit drops: the sanitizers'
    // checks at thread start need a descriptor of their own.
    while (!session_running)
      std::this_thread::yield();
    // A second client, connected once no descriptor is left: its connection waits
    // in the backlog, and every accept of it fails.
    const int waiting = socket(AF_INET, SOCK_STREAM, 0);
    const int lowest_free = dup(0);
    close(lowest_free);
    const rlimit limit{static_cast<rlim_t>(lowest_free), static_cast<rlim_t>(lowest_free)};
    setrlimit(RLIMIT_NOFILE, &limit);
    sockaddr_in to{AF_INET, htons(server.port()), {htonl(INADDR_LOOPBACK)}, {}};
    ASSERT_EQ(connect(waiting, reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
    timespec cpu[2];
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpu[0]);
    std::this_thread::sleep_for(300ms);
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpu[1]);
    const double used = double(cpu[1].tv_sec - cpu[0].tv_sec) + 1e-9 * double(cpu[1].tv_nsec - cpu[0].tv_nsec);
    std::fprintf(stderr, "%.3f s of processor time", used);
    std::_Exit(used < 0.1 ? 0 : 1); // a spinning accept loop takes about 0.3 s
  };
  EXPECT_EXIT(starve(), testing::ExitedWithCode(0), "");
}

} // namespace
