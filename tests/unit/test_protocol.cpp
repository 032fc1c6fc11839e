// Request building, result extraction and reply framing, without a socket.
#include <gtest/gtest.h>
#include <string>
#include <utility>

#include "internal/protocol.hpp"
#include "varkel.h"

using namespace varkel::detail;

namespace {

std::string request(const std::string& command)
{
  char out[kRequestSize];
  EXPECT_EQ(print_json(nullptr, command.c_str(), out), 0);
  return out;
}

std::string result_of(const std::string& reply)
{
  char out[kReplySize];
  parse_json(nullptr, reply.c_str(), out);
  return out;
}

const std::string kHead = R"({"id":"4925cfeb-4a68-4793-a9f8-18d618f428ef","params":)";

TEST(RequestBuilding, ExactBytes)
{
  EXPECT_EQ(request("HS_DacScan 5 0 255 1"), kHead + R"([["5","0","255","1"]],"jsonrpc":"2.0","method":"HS_DacScan"})");
  // Words past the fourth parameter are dropped; runs of blanks are one separator.
  EXPECT_EQ(request("  M  a b   c d e f"), kHead + R"([["a","b","c","d"]],"jsonrpc":"2.0","method":"M"})");
  EXPECT_EQ(request("HS_SensorBias_Command 1 0 12.500000"),
            kHead + R"([["1","0","12.500000"]],"jsonrpc":"2.0","method":"HS_SensorBias_Command"})");
  // json-c escapes quotes, backslashes and slashes inside the strings.
  EXPECT_EQ(request(R"(W a"b c\d e/f)"), kHead + R"([["a\"b","c\\d","e\/f"]],"jsonrpc":"2.0","method":"W"})");
}

TEST(RequestBuilding, RefusedWhenItWouldNotFitTheBuffer)
{
  // 110 fixed characters + the method: the largest request that fits is 511.
  const std::string fixed = kHead + R"([[]],"jsonrpc":"2.0","method":""})";
  char out[kRequestSize];
  const std::string fits(511 - fixed.size(), 'm');
  EXPECT_EQ(print_json(nullptr, fits.c_str(), out), 0);
  EXPECT_EQ(std::string(out).size(), 511u);
  const std::string too_long = fits + "m";
  EXPECT_EQ(print_json(nullptr, too_long.c_str(), out), EOVERFLOW);
  EXPECT_STREQ(out, "");
}

TEST(ResultExtraction, MemberTextForms)
{
  const std::pair<const char*, const char*> cases[] = {
      {R"({"jsonrpc":"2.0","result":"AcquireTime set with 0.500000 seconds","id":"x"})",
       "AcquireTime set with 0.500000 seconds"},
      {R"({"jsonrpc":"2.0","error":{"code":-32601,"message":"x"},"id":"x"})", R"({ "code": -32601, "message": "x" })"},
      {R"({"result":3})", "3"},
      {R"({"result":true,"error":"ignored"})", "true"},
      {R"({"result":"line1\nline2"})", "line1\nline2"},
      {R"({"result":null})", "null"},
      {R"({"jsonrpc":"2.0","id":"x"})", ""}, // neither member
      {"not json at all", ""},
      {R"({"result":"cut)", ""},
      {"", ""},
      {"[1,2,3]", ""},
  };
  for (const auto& [reply, text] : cases)
    EXPECT_EQ(result_of(reply), text) << reply;
  // Its code: 0 with a member, -2 for JSON without one and for what is not JSON.
  char out[kReplySize];
  EXPECT_EQ(parse_json(nullptr, R"({"result":3})", out), 0);
  EXPECT_EQ(parse_json(nullptr, R"({"jsonrpc":"2.0","id":"x"})", out), -2);
  EXPECT_EQ(parse_json(nullptr, "not json at all", out), -2);
}

TEST(ResultExtraction, SpacedFormIsCutToTheResultBuffer)
{
  // A compact error object of under 1023 characters whose spaced form is longer.
  std::string reply = R"({"error":[)";
  for (int i = 0; i < 500; ++i)
    reply += i ? ",1" : "1";
  reply += "]}";
  ASSERT_LT(reply.size(), 1023u);
  EXPECT_EQ(result_of(reply).size(), 1023u);
}

TEST(ReplyShape, CompleteIncompleteOrNotJson)
{
  EXPECT_EQ(reply_shape(R"({"result":"a"})"), ReplyShape::complete);
  EXPECT_EQ(reply_shape(R"(  {"result":{"x":[1,{}]}} )"), ReplyShape::complete);
  EXPECT_EQ(reply_shape(R"({"result":"}{"})"), ReplyShape::complete); // braces inside strings
  EXPECT_EQ(reply_shape(R"({"result":"a\"}")"), ReplyShape::incomplete);
  EXPECT_EQ(reply_shape(R"({"result":)"), ReplyShape::incomplete);
  EXPECT_EQ(reply_shape(""), ReplyShape::incomplete);
  EXPECT_EQ(reply_shape(R"([{"result":"a"})"), ReplyShape::incomplete); // brackets count too
  EXPECT_EQ(reply_shape(R"([{"result":"a"}])"), ReplyShape::complete);
  EXPECT_EQ(reply_shape("OK"), ReplyShape::not_json);
  EXPECT_EQ(reply_shape("3"), ReplyShape::not_json);
}

} // namespace
