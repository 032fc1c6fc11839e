#include "fake_controller.hpp"

#include <json-c/json.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "ethernet.h"

namespace varkel::testing {

namespace {

constexpr char kReplyId[] = "\"id\":\"4925cfeb-4a68-4793-a9f8-18d618f428ef\"";

std::string quote(const std::string& text)
{
  json_object* s = json_object_new_string(text.c_str());
  std::string out = json_object_to_json_string_ext(s, JSON_C_TO_STRING_PLAIN);
  json_object_put(s);
  return out;
}

Request parse_request(std::string raw)
{
  Request r;
  r.raw = std::move(raw);
  json_object* obj = json_tokener_parse(r.raw.c_str());
  if (obj == nullptr)
    return r;
  json_object* member = nullptr;
  if (json_object_object_get_ex(obj, "method", &member))
    r.method = json_object_get_string(member);
  if (json_object_object_get_ex(obj, "params", &member) && json_object_is_type(member, json_type_array) &&
      json_object_array_length(member) > 0) {
    json_object* inner = json_object_array_get_idx(member, 0);
    if (json_object_is_type(inner, json_type_array)) {
      for (std::size_t i = 0; i < json_object_array_length(inner); ++i)
        r.params.emplace_back(json_object_get_string(json_object_array_get_idx(inner, i)));
    }
  }
  json_object_put(obj);
  return r;
}

// Length of the first complete JSON object in `buf`, or 0 when none is complete yet.
std::size_t object_length(const std::string& buf)
{
  int depth = 0;
  bool in_string = false, escaped = false;
  for (std::size_t i = 0; i < buf.size(); ++i) {
    const char c = buf[i];
    if (in_string) {
      if (escaped)
        escaped = false;
      else if (c == '\\')
        escaped = true;
      else if (c == '"')
        in_string = false;
    } else if (c == '"') {
      in_string = true;
    } else if (c == '{') {
      ++depth;
    } else if (c == '}' && --depth == 0) {
      return i + 1;
    }
  }
  return 0;
}

} // namespace

std::string Request::command() const
{
  std::string out = method;
  for (const auto& p : params)
    out += " " + p;
  return out;
}

Reply Reply::result(const std::string& text)
{
  return raw("{\"jsonrpc\":\"2.0\",\"result\":" + quote(text) + "," + kReplyId + "}");
}
Reply Reply::error(const std::string& message)
{
  return raw("{\"jsonrpc\":\"2.0\",\"error\":{\"code\":-32601,\"message\":" + quote(message) + "}," + kReplyId + "}");
}
Reply Reply::raw(std::string text) { return Reply{Action::send, std::move(text)}; }
Reply Reply::bytewise(std::string text) { return Reply{Action::send_bytewise, std::move(text)}; }
Reply Reply::split(std::string text, std::size_t at, std::chrono::microseconds tail_delay)
{
  Reply r{Action::split, std::move(text)};
  r.split_at = at;
  r.tail_delay = tail_delay;
  return r;
}
Reply Reply::silence() { return Reply{Action::silence, {}}; }
Reply Reply::close() { return Reply{Action::close, {}}; }
Reply Reply::reset() { return Reply{Action::reset, {}}; }
Reply Reply::oversize(std::size_t size)
{
  const std::string head = "{\"result\":\"";
  const std::string tail = "\"}";
  return raw(head + std::string(size - head.size() - tail.size(), 'x') + tail);
}
Reply Reply::not_json() { return raw("this is not json"); }

FakeController::FakeController(Handler handler)
    : handler_(std::move(handler)), server_(std::make_unique<LoopbackServer>([this](int fd) { serve(fd); }))
{
}

FakeController::~FakeController() { server_->stop(); }

void FakeController::set_handler(Handler handler)
{
  std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
}

void FakeController::set_latency(std::chrono::microseconds latency)
{
  std::lock_guard lock(mutex_);
  latency_ = latency;
}

std::vector<Request> FakeController::transcript() const
{
  std::lock_guard lock(mutex_);
  return transcript_;
}

std::vector<std::string> FakeController::commands() const
{
  std::vector<std::string> out;
  for (const auto& r : transcript())
    out.push_back(r.command());
  return out;
}

std::size_t FakeController::request_count() const
{
  std::lock_guard lock(mutex_);
  return transcript_.size();
}

void FakeController::clear()
{
  std::lock_guard lock(mutex_);
  transcript_.clear();
}

void FakeController::serve(int fd)
{
  std::string pending;
  char buf[4096];
  for (;;) {
    const ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n <= 0)
      return;
    pending.append(buf, static_cast<std::size_t>(n));
    while (std::size_t len = object_length(pending)) {
      Request request = parse_request(pending.substr(0, len));
      pending.erase(0, len);
      Handler handler;
      std::chrono::microseconds latency;
      {
        std::lock_guard lock(mutex_);
        handler = handler_;
        latency = latency_;
      }
      Reply reply = handler ? handler(request) : Reply::result("OK");
      {
        std::lock_guard lock(mutex_);
        transcript_.push_back(std::move(request));
      }
      std::this_thread::sleep_for(latency + reply.delay);
      switch (reply.action) {
      case Reply::Action::send:
        send_all(fd, reply.text.data(), reply.text.size());
        break;
      case Reply::Action::send_bytewise:
        for (char c : reply.text) {
          send_all(fd, &c, 1);
          std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        break;
      case Reply::Action::split:
        send_all(fd, reply.text.data(), reply.split_at);
        std::this_thread::sleep_for(reply.tail_delay);
        send_all(fd, reply.text.data() + reply.split_at, reply.text.size() - reply.split_at);
        break;
      case Reply::Action::silence:
        break;
      case Reply::Action::close:
        return;
      case Reply::Action::reset:
        arm_reset(fd);
        return;
      }
    }
  }
}

int connect_loopback(uint16_t port)
{
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0 || socket_connect(fd, "127.0.0.1", port, VARKEL_MODULE_TIMEOUT_US) != 0) {
    if (fd >= 0)
      ::close(fd);
    return -1;
  }
  return fd;
}

} // namespace varkel::testing
