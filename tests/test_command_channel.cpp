// The command channel against loopback fake controllers: bytes on the wire,
// reply extraction and its limits, failure codes, trace, time-outs, threads.
#include <atomic>
#include <chrono>
#include <cstdio>
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
#include "fake_controller.hpp"
#include "internal/query.hpp"
#include "utils.h"
#include "varkel.h"

using namespace std::chrono_literals;
using varkel::testing::FakeController;
using varkel::testing::Reply;
using varkel::testing::Request;

namespace {

const std::string kHead = R"({"id":"4925cfeb-4a68-4793-a9f8-18d618f428ef","params":)";

// A four-module handle whose channels are connected to four fake controllers;
// the main channel is module 4, as after connecting.
class Channel : public ::testing::Test {
protected:
  void SetUp() override
  {
    ::testing::internal::CaptureStdout();
    v = varkel_new(varkelQuad);
    ::testing::internal::GetCapturedStdout();
    for (int m = 0; m < 4; ++m) {
      fakes.push_back(std::make_unique<FakeController>());
      v->fd[m] = varkel::testing::connect_loopback(fakes[m]->port());
      ASSERT_GT(v->fd[m], 0);
    }
    v->varkel_interface = v->fd[3];
  }
  void TearDown() override { varkel_delete(v); }

  int query(varkel_thread_t owner, char* result, const char* text)
  {
    return query_and_cache(v, owner, result, "%s", text);
  }

  varkel_t* v = nullptr;
  std::vector<std::unique_ptr<FakeController>> fakes;
};

TEST_F(Channel, RequestBytesGoOutOnTheChosenSocketOnly)
{
  char result[1024];
  ASSERT_EQ(query_and_cache(v, VARKEL_THREAD_MODULE2, result, CMD_TRANSPORT_ROCE, 12u, "4660"), 0);
  ASSERT_EQ(query_and_cache(v, result, CMD_CONFIGURE_ROCE), 0);
  ASSERT_EQ(query_and_cache(v, VARKEL_THREAD_MAIN, result, CMD_SENSORBIAS, 1u, 0u, 12.5), 0);
  EXPECT_STREQ(result, "OK");

  ASSERT_EQ(fakes[1]->transcript().size(), 1u);
  EXPECT_EQ(fakes[1]->transcript()[0].raw,
            kHead + R"([["12","4660"]],"jsonrpc":"2.0","method":"TransportParams"})");
  const auto main = fakes[3]->transcript();
  ASSERT_EQ(main.size(), 2u);
  EXPECT_EQ(main[0].raw, kHead + R"([[]],"jsonrpc":"2.0","method":"ConfigureTransport"})");
  EXPECT_EQ(main[1].command(), "HS_SensorBias_Command 1 0 12.500000");
  EXPECT_EQ(fakes[0]->request_count() + fakes[2]->request_count(), 0u);
}

TEST_F(Channel, PrintsEachRequestAndReplyWithItsChannel)
{
  fakes[0]->set_handler([](const Request&) { return Reply::raw(R"({"result":"done"})"); });
  char result[1024];
  ::testing::internal::CaptureStdout();
  ASSERT_EQ(query_and_cache(v, VARKEL_THREAD_MODULE1, result, CMD_RESET, 1u), 0);
  const std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(out, "\nOWNER: 0 - SENT TO K64: " + kHead + R"([["1"]],"jsonrpc":"2.0","method":"HS_Reset"})" +
                     "\nOWNER: 0 RC: 17 - GET FROM K64 (JSON): {\"result\":\"done\"}\n");
}

TEST_F(Channel, ResultTextOfEachReplyForm)
{
  struct Case {
    Reply reply;
    std::string text;
  };
  const std::vector<Case> cases = {
      {Reply::result("AcquireTime set with 0.500000 seconds"), "AcquireTime set with 0.500000 seconds"},
      {Reply::error("x"), R"({ "code": -32601, "message": "x" })"},
      {Reply::raw(R"({"result":3})"), "3"},
      {Reply::raw(R"({"jsonrpc":"2.0","id":"x"})"), ""},
      {Reply::not_json(), ""},
      {Reply::bytewise(R"({"result":"slow but whole"})"), "slow but whole"},
      {Reply::split(R"({"result":"two segments"})", 9, 50ms), "two segments"},
  };
  for (const Case& c : cases) {
    fakes[0]->set_handler([&](const Request&) { return c.reply; });
    char result[1024];
    std::memset(result, 'z', sizeof result);
    ASSERT_EQ(query(VARKEL_THREAD_MODULE1, result, "Q"), 0) << c.text;
    EXPECT_EQ(result, c.text);
  }
}

TEST_F(Channel, OversizeReplyIsCutAndItsRestNeverTakenAsTheNextReply)
{
  std::vector<Reply> replies = {Reply::oversize(1500), Reply::result("next")};
  std::atomic<std::size_t> n{0};
  fakes[0]->set_handler([&](const Request&) { return replies[n++]; });
  char result[1024];
  ::testing::internal::CaptureStdout();
  ASSERT_EQ(query(VARKEL_THREAD_MODULE1, result, "A"), 0);
  const std::string out = ::testing::internal::GetCapturedStdout();
  // 1023 characters are kept; they are no complete JSON, so the result text is empty.
  EXPECT_NE(out.find("RC: 1024 - GET FROM K64 (JSON): {\"result\":\"" + std::string(1023 - 11, 'x') + "\n"),
            std::string::npos);
  EXPECT_STREQ(result, "");
  ASSERT_EQ(query(VARKEL_THREAD_MODULE1, result, "B"), 0);
  EXPECT_STREQ(result, "next");
}

TEST_F(Channel, LateTailIsDrainedBeforeTheNextCommand)
{
  std::vector<Reply> replies = {Reply::split(R"({"result":"first"})", 5, 800ms), Reply::result("second")};
  std::atomic<std::size_t> n{0};
  fakes[0]->set_handler([&](const Request&) { return replies[n++]; });
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
}

TEST_F(Channel, ReplyThatIsPlainlyNotJsonEndsAtOnce)
{
  fakes[0]->set_handler([](const Request&) { return Reply::raw("ERR"); });
  char result[1024];
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(query(VARKEL_THREAD_MODULE1, result, "A"), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 300ms);
}

TEST_F(Channel, StaleInputIsDiscardedBeforeSending)
{
  // 2000 unsolicited bytes wait on the socket before the command.
  fakes[0]->set_handler([](const Request& r) { return Reply::result(r.method); });
  char result[1024];
  ASSERT_EQ(query(VARKEL_THREAD_MODULE1, result, "first"), 0);
  fakes[0]->set_handler([](const Request& r) {
    Reply reply = Reply::raw(std::string(2000, 'j') + R"({"result":")" + r.method + "\"}");
    return reply;
  });
  ASSERT_EQ(query(VARKEL_THREAD_MODULE1, result, "junk"), 0);
  std::this_thread::sleep_for(100ms); // all of the junk reply has arrived
  fakes[0]->set_handler([](const Request& r) { return Reply::result(r.method); });
  ASSERT_EQ(query(VARKEL_THREAD_MODULE1, result, "third"), 0);
  EXPECT_STREQ(result, "third");
}

TEST_F(Channel, OverlongCommandIsRefusedAndNothingIsSent)
{
  char result[1024] = "untouched";
  const std::string word(300, 'w');
  // 512 characters or more: the command itself does not fit.
  EXPECT_EQ(query_and_cache(v, VARKEL_THREAD_MODULE1, result, "%s %s", word.c_str(), word.c_str()), EOVERFLOW);
  // Fits as a command, but not as a request.
  const std::string long_word(420, 'w');
  EXPECT_EQ(query_and_cache(v, VARKEL_THREAD_MODULE1, result, "M %s %s", long_word.c_str(), "p"), EOVERFLOW);
  EXPECT_STREQ(result, "untouched");
  ASSERT_EQ(query(VARKEL_THREAD_MODULE1, result, "after"), 0);
  ASSERT_EQ(fakes[0]->request_count(), 1u);
  EXPECT_EQ(fakes[0]->transcript()[0].method, "after");
}

TEST_F(Channel, PeerResetGivesMinusOneAndLeavesTheResult)
{
  fakes[0]->set_handler([](const Request&) { return Reply::reset(); });
  char result[1024] = "untouched";
  EXPECT_EQ(query(VARKEL_THREAD_MODULE1, result, "A"), -1);
  EXPECT_STREQ(result, "untouched");
  // Sending on the dead connection fails with an error number instead of SIGPIPE.
  int rc = 0;
  for (int i = 0; i < 3 && rc <= 0; ++i)
    rc = query(VARKEL_THREAD_MODULE1, result, "B");
  EXPECT_TRUE(rc == EPIPE || rc == ECONNRESET) << rc;
}

TEST_F(Channel, PeerCloseGivesAnEmptyResult)
{
  fakes[0]->set_handler([](const Request&) { return Reply::close(); });
  char result[1024] = "untouched";
  EXPECT_EQ(query(VARKEL_THREAD_MODULE1, result, "A"), 0);
  EXPECT_STREQ(result, "");
}

TEST_F(Channel, ChannelWithoutConnectionIsRefused)
{
  char result[1024] = "untouched";
  ::testing::internal::CaptureStdout();
  varkel_t* fresh = varkel_new(varkelQuad);
  ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(query_and_cache(fresh, VARKEL_THREAD_MODULE1, result, "%s", "A"), ENOTCONN); // fd 0: never connected
  EXPECT_EQ(query_and_cache(fresh, result, "%s", "A"), ENOTCONN);                        // main channel -1
  EXPECT_EQ(query_and_cache(fresh, static_cast<varkel_thread_t>(9), result, "%s", "A"), ENOTCONN);
  EXPECT_STREQ(result, "untouched");
  varkel_delete(fresh);
}

TEST_F(Channel, EveryQueryLeavesTheReceiveTimeoutAt600Seconds)
{
  ASSERT_EQ(set_timeout(v->fd[0], 300000000), 0);
  char result[1024];
  ASSERT_EQ(query(VARKEL_THREAD_MODULE1, result, "A"), 0);
  timeval tv{};
  socklen_t len = sizeof tv;
  ASSERT_EQ(getsockopt(v->fd[0], SOL_SOCKET, SO_RCVTIMEO, &tv, &len), 0);
  EXPECT_EQ(tv.tv_sec, 600);
  EXPECT_EQ(tv.tv_usec, 0);
}

TEST_F(Channel, ModuleChannelsRunConcurrently)
{
  for (auto& f : fakes) {
    f->set_latency(20ms);
    f->set_handler([port = f->port()](const Request& r) { return Reply::result(r.method + "@" + std::to_string(port)); });
  }
  std::atomic<int> failures{0};
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::thread> workers;
  for (int m = 0; m < 4; ++m) {
    workers.emplace_back([&, m] {
      for (int i = 0; i < 10; ++i) {
        char result[1024];
        const std::string method = "M" + std::to_string(m) + "_" + std::to_string(i);
        if (query(static_cast<varkel_thread_t>(m), result, method.c_str()) != 0 ||
            result != method + "@" + std::to_string(fakes[m]->port()))
          ++failures;
      }
    });
  }
  for (auto& t : workers)
    t.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 4 * 10 * 20ms); // not one module after another
}

// ---------------------------------------------------------------------------
// Trace

class Trace : public Channel {
protected:
  void SetUp() override
  {
    Channel::SetUp();
    dir = std::filesystem::temp_directory_path() / ("varkel-trace-" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    old = std::filesystem::current_path();
    std::filesystem::current_path(dir);
  }
  void TearDown() override
  {
    Channel::TearDown();
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
  std::filesystem::path dir, old;
};

const std::regex kStamp(R"(^\d\d:\d\d:\d\d\.\d\d\d )");

TEST_F(Trace, EveryRequestAndReplyIsTracedToLogTxt)
{
  varkel_set_debug_stream(v, stderr);
  fakes[0]->set_handler([](const Request&) { return Reply::raw("{\"result\":\"a\nb\"}"); });
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
  for (int m = 0; m < 4; ++m) {
    workers.emplace_back([&, m] {
      char result[1024];
      for (int i = 0; i < 25; ++i)
        query_and_cache(v, static_cast<varkel_thread_t>(m), result, "Module%d_%d %s", m, i, std::string(200, 'p').c_str());
    });
  }
  for (auto& t : workers)
    t.join();
  const auto lines = log_lines();
  ASSERT_EQ(lines.size(), 1u + 4 * 25 * 2);
  const std::regex whole(R"(^\d\d:\d\d:\d\d\.\d\d\d (\[SEND\] \{"id":.*"method":"Module\d_\d+"\}|\[RECV\] \{"jsonrpc":"2.0","result":"OK",.*\})$)");
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

TEST(TraceDeathTest, UncreatableLogFileEndsTheProcessWithStatusZero)
{
  const auto dir = std::filesystem::temp_directory_path() / ("varkel-nolog-" + std::to_string(getpid()));
  std::filesystem::create_directories(dir / "log.txt"); // a directory where the file should be
  const auto old = std::filesystem::current_path();
  std::filesystem::current_path(dir);
  EXPECT_EXIT(
      {
        varkel_t* v = varkel_new(kinlet);
        varkel_set_debug_stream(v, nullptr);
      },
      ::testing::ExitedWithCode(0), "");
  std::filesystem::current_path(old);
  std::filesystem::remove_all(dir);
}

TEST(ChannelDeathTest, NullTemplateAsserts)
{
  varkel_t* v = varkel_new(kinlet);
  char result[1024];
  EXPECT_DEATH(query_and_cache(v, result, nullptr), "cmd_format != NULL");
  varkel_delete(v);
}

// ---------------------------------------------------------------------------
// The shared query shapes

TEST_F(Channel, QueryShapesCacheOnlyWhatParses)
{
  std::vector<Reply> replies = {Reply::result("AcquireTime set with 0.500000 seconds"), Reply::result("garbage"),
                                Reply::result("expected"), Reply::result("other"), Reply::reset()};
  std::atomic<std::size_t> n{0};
  fakes[3]->set_handler([&](const Request&) { return replies[n++]; });
  float cached = 7.0f;
  auto store = [&](float x) { cached = x; };
  using namespace varkel::detail;
  EXPECT_EQ(query_scan<float>(v, VARKEL_THREAD_MAIN, "AcquireTime set with %f seconds", store, CMD_ACQUIRE_TIME, 0u, 0u), 0);
  EXPECT_FLOAT_EQ(cached, 0.5f);
  EXPECT_EQ(query_scan<float>(v, VARKEL_THREAD_MAIN, "AcquireTime set with %f seconds", store, CMD_ACQUIRE_TIME, 0u, 0u), 0);
  EXPECT_FLOAT_EQ(cached, 0.5f); // a reply that does not parse leaves the cache alone
  EXPECT_EQ(query_expect(v, VARKEL_THREAD_MAIN, "expected", -3, CMD_CONFIGURE_ROCE), 0);
  EXPECT_EQ(query_expect(v, VARKEL_THREAD_MAIN, "expected", -3, CMD_CONFIGURE_ROCE), -3);
  EXPECT_EQ(query_status(v, VARKEL_THREAD_MAIN, CMD_RESET, 1u), -1);
}

TEST_F(Channel, ParallelFanOutRunsOneWorkerPerModuleAndOrsResults)
{
  for (auto& f : fakes) {
    f->set_latency(100ms);
  }
  fakes[2]->set_handler([](const Request&) { return Reply::reset(); });
  const auto start = std::chrono::steady_clock::now();
  const int rc = varkel::detail::for_each_module_parallel(v, [&](varkel_thread_t owner) {
    return varkel::detail::query_status(v, owner, CMD_RESET, static_cast<unsigned>(owner));
  });
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(rc, -1);
  EXPECT_LT(took, 250ms); // four 100 ms commands at once, not one after another
  for (unsigned m = 0; m < 4; ++m)
    ASSERT_EQ(fakes[m]->commands(), std::vector<std::string>{"HS_Reset " + std::to_string(m)});
}

} // namespace
