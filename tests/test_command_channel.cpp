// The command channel against loopback fake controllers: bytes on the wire,
// reply extraction and its limits, failure codes, trace, time-outs, threads.
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "ethernet.h"
#include "fake_detector.hpp"
#include "internal/query.hpp"
#include "utils.h"

using namespace std::chrono_literals;
using namespace varkel::testing;
using varkel::detail::query_expect;
using varkel::detail::query_scan;
using varkel::detail::query_status;

namespace {

const std::string kHead = R"({"id":"4925cfeb-4a68-4793-a9f8-18d618f428ef","params":)";
const std::regex kStamp(R"(^\d\d:\d\d:\d\d\.\d\d\d )");

// Four modules on four fakes, the main channel on module 4.
class Channel : public ::testing::Test {
protected:
  int query(varkel_thread_t owner, char* result, const char* text)
  {
    return query_and_cache(v, owner, result, "%s", text);
  }
  // Module 1 answers each request with the next reply of the list.
  void script(std::vector<Reply> replies)
  {
    det.module(1).set_handler(
        [replies, n = std::make_shared<std::atomic<std::size_t>>(0)](const Request&) { return replies.at((*n)++); });
  }
  FakeDetector det{varkelQuad};
  varkel_t* v = det.handle();
};

TEST_F(Channel, RequestBytesGoOutOnTheChosenSocketOnly)
{
  char result[1024];
  ASSERT_EQ(query_and_cache(v, VARKEL_THREAD_MODULE2, result, CMD_TRANSPORT_ROCE, 12u, "4660"), 0);
  ASSERT_EQ(query_and_cache(v, result, CMD_CONFIGURE_ROCE), 0);
  ASSERT_EQ(query_and_cache(v, VARKEL_THREAD_MAIN, result, CMD_SENSORBIAS, 1u, 0u, 12.5), 0);
  EXPECT_STREQ(result, "OK");
  ASSERT_EQ(det.module(2).transcript().size(), 1u);
  EXPECT_EQ(det.module(2).transcript()[0].raw,
            kHead + R"([["12","4660"]],"jsonrpc":"2.0","method":"TransportParams"})");
  const auto main = det.module(4).transcript();
  ASSERT_EQ(main.size(), 2u);
  EXPECT_EQ(main[0].raw, kHead + R"([[]],"jsonrpc":"2.0","method":"ConfigureTransport"})");
  EXPECT_EQ(main[1].command(), "HS_SensorBias_Command 1 0 12.500000");
  EXPECT_EQ(det.module(1).request_count() + det.module(3).request_count(), 0u);
}

TEST_F(Channel, PrintsEachRequestAndReplyWithItsChannel)
{
  script({Reply::raw(R"({"result":"done"})")});
  char result[1024];
  ::testing::internal::CaptureStdout();
  ASSERT_EQ(query_and_cache(v, VARKEL_THREAD_MODULE1, result, CMD_RESET, 1u), 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "\nOWNER: 0 - SENT TO K64: " + kHead + R"([["1"]],"jsonrpc":"2.0","method":"HS_Reset"})" +
                "\nOWNER: 0 RC: 17 - GET FROM K64 (JSON): {\"result\":\"done\"}\n");
}

TEST_F(Channel, ResultTextOfEachReplyForm)
{
  const std::vector<std::pair<Reply, std::string>> cases = {
      {Reply::result("AcquireTime set with 0.500000 seconds"), "AcquireTime set with 0.500000 seconds"},
      {Reply::error("x"), R"({ "code": -32601, "message": "x" })"},
      {Reply::raw(R"({"result":3})"), "3"},
      {Reply::raw(R"({"jsonrpc":"2.0","id":"x"})"), ""},
      {Reply::not_json(), ""},
      {Reply::close(), ""}, // the peer closed: an empty reply
      {Reply::bytewise(R"({"result":"slow but whole"})"), "slow but whole"},
      {Reply::split(R"({"result":"two segments"})", 9, 50ms), "two segments"},
  };
  for (const auto& [reply, text] : cases) {
    FakeDetector fresh(kinlet);
    fresh.answer_all([&reply = reply](const Request&) { return reply; });
    char result[1024];
    std::memset(result, 'z', sizeof result);
    ASSERT_EQ(query_and_cache(fresh.handle(), result, "%s", "Q"), 0) << text;
    EXPECT_EQ(result, text);
  }
}

TEST_F(Channel, OversizeReplyIsCutAndItsRestNeverTakenAsTheNextReply)
{
  script({Reply::oversize(1500), Reply::result("next")});
  char result[1024];
  ::testing::internal::CaptureStdout();
  ASSERT_EQ(query(VARKEL_THREAD_MODULE1, result, "A"), 0);
  const std::string out = ::testing::internal::GetCapturedStdout();
  // 1023 characters are kept; they are no complete JSON, so the result text is empty.
  EXPECT_NE(out.find("RC: 1024 - GET FROM K64 (JSON): {\"result\":\"" + std::string(1012, 'x') + "\n"),
            std::string::npos);
  EXPECT_STREQ(result, "");
  ASSERT_EQ(query(VARKEL_THREAD_MODULE1, result, "B"), 0);
  EXPECT_STREQ(result, "next");
}

TEST_F(Channel, LateTailIsDrainedBeforeTheNextCommand)
{
  script({Reply::split(R"({"result":"first"})", 5, 800ms), Reply::result("second")});
  char result[1024];
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(query(VARKEL_THREAD_MODULE1, result, "A"), 0);
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, 400ms); // the continuation wait
  EXPECT_LT(waited, 800ms); // but not for the late tail
  EXPECT_STREQ(result, "");
  std::this_thread::sleep_for(600ms); // the tail arrives while no command is outstanding
  ASSERT_EQ(query(VARKEL_THREAD_MODULE1, result, "B"), 0);
  EXPECT_STREQ(result, "second");

  // A reply that plainly is not JSON is not waited on.
  script({Reply::raw("ERR")});
  const auto again = std::chrono::steady_clock::now();
  ASSERT_EQ(query(VARKEL_THREAD_MODULE1, result, "C"), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - again, 300ms);
}

TEST_F(Channel, FailuresReturnTheirCodesAndLeaveTheResult)
{
  char result[1024] = "untouched";
  // 512 characters or more as a command; under 512 but over 511 as a request.
  EXPECT_EQ(query_and_cache(v, VARKEL_THREAD_MODULE1, result, "%s %s", std::string(300, 'w').c_str(),
                            std::string(300, 'w').c_str()),
            EOVERFLOW);
  EXPECT_EQ(query_and_cache(v, VARKEL_THREAD_MODULE1, result, "M %s p", std::string(420, 'w').c_str()), EOVERFLOW);
  EXPECT_EQ(det.module(1).request_count(), 0u);

  varkel_t* fresh = varkel_new(varkelQuad); // channels never connected
  EXPECT_EQ(query_and_cache(fresh, VARKEL_THREAD_MODULE1, result, "%s", "A"), ENOTCONN);
  EXPECT_EQ(query_and_cache(fresh, result, "%s", "A"), ENOTCONN);
  varkel_delete(fresh);
  EXPECT_EQ(query_and_cache(v, static_cast<varkel_thread_t>(9), result, "%s", "A"), ENOTCONN);

  script({Reply::reset()});
  EXPECT_EQ(query(VARKEL_THREAD_MODULE1, result, "A"), -1);
  EXPECT_STREQ(result, "untouched");
  // Sending on the dead connection fails with an error number instead of SIGPIPE.
  int rc = 0;
  for (int i = 0; i < 3 && rc <= 0; ++i)
    rc = query(VARKEL_THREAD_MODULE1, result, "B");
  EXPECT_TRUE(rc == EPIPE || rc == ECONNRESET) << rc;
}

TEST_F(Channel, TheReceiveTimeoutIsSetOnceAtTheConnection)
{
  const auto timeout = [&] {
    timeval tv{};
    socklen_t len = sizeof tv;
    EXPECT_EQ(getsockopt(v->fd[0], SOL_SOCKET, SO_RCVTIMEO, &tv, &len), 0);
    return std::pair(tv.tv_sec, tv.tv_usec);
  };
  EXPECT_EQ(timeout(), std::pair(time_t{600}, suseconds_t{0}));
  // A query leaves it alone.
  ASSERT_EQ(set_timeout(v->fd[0], 300000000), 0);
  char result[1024];
  ASSERT_EQ(query(VARKEL_THREAD_MODULE1, result, "A"), 0);
  EXPECT_EQ(timeout(), std::pair(time_t{300}, suseconds_t{0}));
}

TEST_F(Channel, QueryShapesCacheOnlyWhatParses)
{
  det.module(4).set_handler([n = std::make_shared<std::atomic<int>>(0)](const Request&) {
    const Reply replies[] = {Reply::result("AcquireTime set with 0.500000 seconds"), Reply::result("garbage"),
                             Reply::result("expected"), Reply::result("other"), Reply::reset()};
    return replies[(*n)++];
  });
  float cached = 7.0f;
  auto store = [&](float x) { cached = x; };
  const char* scan = "AcquireTime set with %f seconds";
  EXPECT_EQ(query_scan<float>(v, VARKEL_THREAD_MAIN, scan, store, CMD_ACQUIRE_TIME, 0u, 0u), 0);
  EXPECT_FLOAT_EQ(cached, 0.5f);
  EXPECT_EQ(query_scan<float>(v, VARKEL_THREAD_MAIN, scan, store, CMD_ACQUIRE_TIME, 0u, 0u), 0);
  EXPECT_FLOAT_EQ(cached, 0.5f); // a reply that does not parse leaves the cache alone
  EXPECT_EQ(query_expect(v, VARKEL_THREAD_MAIN, "expected", -3, CMD_CONFIGURE_ROCE), 0);
  EXPECT_EQ(query_expect(v, VARKEL_THREAD_MAIN, "expected", -3, CMD_CONFIGURE_ROCE), -3);
  EXPECT_EQ(query_status(v, VARKEL_THREAD_MAIN, CMD_RESET, 1u), -1);
}

TEST_F(Channel, ParallelFanOutRunsOneWorkerPerModuleAndOrsResults)
{
  for (int m = 1; m <= 4; ++m)
    det.module(m).set_latency(100ms);
  det.module(3).set_handler([](const Request&) { return Reply::reset(); });
  const auto start = std::chrono::steady_clock::now();
  const int rc = varkel::detail::for_each_module_parallel(
      v, [&](varkel_thread_t owner) { return query_status(v, owner, CMD_RESET, static_cast<unsigned>(owner)); });
  EXPECT_LT(std::chrono::steady_clock::now() - start, 250ms); // four 100 ms commands at once
  EXPECT_EQ(rc, -1);
  for (int m = 1; m <= 4; ++m)
    EXPECT_EQ(det.module(m).commands(), std::vector<std::string>{"HS_Reset " + std::to_string(m - 1)});
}

// ---------------------------------------------------------------------------
// Trace

class Trace : public Channel {
protected:
  void SetUp() override { std::filesystem::current_path(dir); }
  void TearDown() override
  {
    std::filesystem::current_path(old);
    std::filesystem::remove_all(dir);
  }
  std::vector<std::string> log_lines()
  {
    std::ifstream in(dir / "log.txt");
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
      lines.push_back(line);
    return lines;
  }
  std::filesystem::path old = std::filesystem::current_path();
  std::filesystem::path dir = [] {
    auto d = std::filesystem::temp_directory_path() / ("varkel-trace-" + std::to_string(getpid()));
    std::filesystem::create_directories(d);
    return d;
  }();
};

TEST_F(Trace, EveryRequestAndReplyIsTracedToLogTxt)
{
  varkel_set_debug_stream(v, stderr);
  script({Reply::raw("{\"result\":\"a\nb\"}")});
  char result[1024];
  ASSERT_EQ(query_and_cache(v, VARKEL_THREAD_MODULE1, result, CMD_CONFIGURE_ROCE), 0);
  const auto lines = log_lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], "Log debug file");
  EXPECT_TRUE(std::regex_search(lines[1], kStamp)) << lines[1];
  EXPECT_EQ(lines[1].substr(13), "[SEND] " + kHead + R"([[]],"jsonrpc":"2.0","method":"ConfigureTransport"})");
  EXPECT_EQ(lines[2].substr(13), R"([RECV] {"result":"a\nb"})");
}

TEST_F(Trace, LinesOfConcurrentModuleThreadsStayWhole)
{
  varkel_set_debug_stream(v, nullptr);
  std::vector<std::thread> workers;
  for (int m = 0; m < 4; ++m)
    workers.emplace_back([&, m] {
      char result[1024];
      for (int i = 0; i < 25; ++i)
        query_and_cache(v, static_cast<varkel_thread_t>(m), result, "Module%d_%d %s", m, i,
                        std::string(200, 'p').c_str());
    });
  for (auto& t : workers)
    t.join();
  const auto lines = log_lines();
  ASSERT_EQ(lines.size(), 1u + 4 * 25 * 2);
  const std::regex whole(R"(^\d\d:\d\d:\d\d\.\d\d\d (\[SEND\] \{"id":.*"method":"Module\d_\d+"\}|)"
                         R"(\[RECV\] \{"jsonrpc":"2.0","result":"OK",.*\})$)");
  for (std::size_t i = 1; i < lines.size(); ++i)
    EXPECT_TRUE(std::regex_match(lines[i], whole)) << lines[i];
}

TEST(PrintDebug, EscapesEveryByteThatIsNotPrintable)
{
  FILE* f = tmpfile();
  print_debug(f, "[X]", "a b\r\n\x01\t\xe9~");
  print_debug(nullptr, "[X]", "ignored");
  std::rewind(f);
  char line[256] = {};
  ASSERT_NE(std::fgets(line, sizeof line, f), nullptr);
  std::fclose(f);
  EXPECT_TRUE(std::regex_search(line, kStamp));
  EXPECT_STREQ(line + 13, "[X] a b\\r\\n\\x01\\x09\\xffffffe9~\n");
}

TEST(ChannelDeathTest, UncreatableLogFileExitsZeroAndNullTemplateAsserts)
{
  const auto dir = std::filesystem::temp_directory_path() / ("varkel-nolog-" + std::to_string(getpid()));
  std::filesystem::create_directories(dir / "log.txt"); // a directory where the file should be
  const auto old = std::filesystem::current_path();
  std::filesystem::current_path(dir);
  varkel_t* v = varkel_new(kinlet);
  EXPECT_EXIT(varkel_set_debug_stream(v, nullptr), ::testing::ExitedWithCode(0), "");
  char result[1024];
  EXPECT_DEATH(query_and_cache(v, result, nullptr), "cmd_format != NULL");
  varkel_delete(v);
  std::filesystem::current_path(old);
  std::filesystem::remove_all(dir);
}

} // namespace
