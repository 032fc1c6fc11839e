// The command channel against loopback fake controllers: bytes on the wire,
// reply extraction and its limits, failure codes, trace, time-outs, threads.
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
#include "process.hpp" // the exit guard
#include "utils.h"

using namespace varkel::testing;

namespace {

const std::string kHead = R"({"id":"4925cfeb-4a68-4793-a9f8-18d618f428ef","params":)";
const std::regex kStamp(R"(^\d\d:\d\d:\d\d\.\d\d\d )");

// Four modules on four fakes, the main channel on module 4.
class Channel : public ::testing::Test {
protected:
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
  EXPECT_EQ(main[0].command(), "ConfigureTransport");
  EXPECT_EQ(main[1].command(), "HS_SensorBias_Command 1 0 12.500000");
  EXPECT_EQ(det.module(1).request_count() + det.module(3).request_count(), 0u);
}

// After each query's drain the channel's receive time-out is the handle's reply
// bound: 600 s by default, whatever was set on a socket of the library's (module
// 2) or on one the caller attached by hand (module 3).
TEST_F(Channel, QueryLeavesTheHandlesReplyTimeOut)
{
  safe_close(v->fd[2]);
  v->fd[2] = connect_loopback(det.module(3).port());
  const timeval five_minutes{300, 0};
  ASSERT_EQ(setsockopt(v->fd[2], SOL_SOCKET, SO_RCVTIMEO, &five_minutes, sizeof five_minutes), 0);
  ASSERT_EQ(set_timeout(v->fd[1], 300000000), 0);
  char result[1024];
  for (const varkel_thread_t m : {VARKEL_THREAD_MODULE2, VARKEL_THREAD_MODULE3}) {
    ASSERT_EQ(query_and_cache(v, m, result, CMD_CONFIGURE_ROCE), 0);
    EXPECT_EQ(receive_timeout_us(v->fd[m]), 600000000);
  }
}

TEST_F(Channel, PrintsEachRequestAndReplyWithItsChannel)
{
  det.module(1).set_handler([](const Request&) { return Reply::raw(R"({"result":"done"})"); });
  char result[1024];
  ::testing::internal::CaptureStdout();
  ASSERT_EQ(query_and_cache(v, VARKEL_THREAD_MODULE1, result, CMD_RESET, 1u), 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "\nOWNER: 0 - SENT TO K64: " + kHead + R"([["1"]],"jsonrpc":"2.0","method":"HS_Reset"})" +
                "\nOWNER: 0 RC: 17 - GET FROM K64 (JSON): {\"result\":\"done\"}\n");
}

TEST_F(Channel, FailuresReturnTheirCodesAndLeaveTheResult)
{
  char result[1024] = "untouched";
  // A command of 512 characters is refused whole, 511 go out (words past the
  // fourth parameter are dropped from the request); a command under 512 whose
  // request would be over 511 is refused too.
  const std::string longest = "M a b c d " + std::string(501, 'w');
  EXPECT_EQ(query_and_cache(v, VARKEL_THREAD_MODULE1, result, "%sw", longest.c_str()), EOVERFLOW);
  EXPECT_EQ(query_and_cache(v, VARKEL_THREAD_MODULE1, result, "M %s p", std::string(420, 'w').c_str()), EOVERFLOW);
  EXPECT_EQ(det.module(1).request_count(), 0u);
  EXPECT_STREQ(result, "untouched");
  EXPECT_EQ(query_and_cache(v, VARKEL_THREAD_MODULE1, result, "%s", longest.c_str()), 0);
  EXPECT_EQ(det.module(1).commands(), std::vector<std::string>{"M a b c d"});

  varkel_t* fresh = varkel_new(varkelQuad); // channels never connected
  EXPECT_EQ(query_and_cache(fresh, VARKEL_THREAD_MODULE1, result, "%s", "A"), ENOTCONN);
  EXPECT_EQ(query_and_cache(fresh, result, "%s", "A"), ENOTCONN);
  varkel_delete(fresh);
  EXPECT_EQ(query_and_cache(v, static_cast<varkel_thread_t>(9), result, "%s", "A"), ENOTCONN);
}

// ---------------------------------------------------------------------------
// Trace

class Trace : public Channel {
protected:
  void SetUp() override
  {
    std::filesystem::create_directories(dir);
    std::filesystem::current_path(dir);
  }
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
  std::filesystem::path dir = std::filesystem::temp_directory_path() / ("varkel-trace-" + std::to_string(getpid()));
};

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
  EXPECT_EQ(lines[0], "Log debug file");
  const std::regex whole(R"(^\d\d:\d\d:\d\d\.\d\d\d (\[SEND\] \{"id":.*"method":"Module\d_\d+"\}|)"
                         R"(\[RECV\] \{"jsonrpc":"2.0","result":"OK",.*\})$)");
  for (std::size_t i = 1; i < lines.size(); ++i)
    EXPECT_TRUE(std::regex_match(lines[i], whole)) << lines[i];
}

TEST(PrintDebug, EscapesEveryByteThatIsNotPrintableAndWritesEachLineOnce)
{
  // Each write on a packet socket is one packet: the line must be the first one,
  // whole, even from an unbuffered stream.
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair), 0);
  FILE* f = fdopen(pair[0], "w");
  setvbuf(f, nullptr, _IONBF, 0);
  print_debug(f, "[X]", "a b\r\n\x01\t\xe9~");
  print_debug(nullptr, "[X]", "ignored");
  std::fclose(f);
  char line[256] = {};
  ASSERT_GT(recv(pair[1], line, sizeof line - 1, 0), 0);
  close(pair[1]);
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
  EXPECT_EXIT((g_exit_expected = true, varkel_set_debug_stream(v, nullptr)), ::testing::ExitedWithCode(0), "");
  char result[1024];
  EXPECT_DEATH(query_and_cache(v, result, nullptr), "cmd_format != NULL");
  varkel_delete(v);
  std::filesystem::current_path(old);
  std::filesystem::remove_all(dir);
}

} // namespace
