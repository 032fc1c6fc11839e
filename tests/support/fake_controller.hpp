// A scripted detector controller: a JSON-RPC peer on loopback. It splits the
// request stream into JSON objects, records each one, and answers it as the
// test's handler says: a reply text sent whole, or one of the named failures.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "loopback_server.hpp"

namespace varkel::testing {

using loopback::arm_reset;
using loopback::LoopbackServer;
using loopback::send_all;

struct Request {
  std::string raw;
  std::string method;
  std::vector<std::string> params;
  // The command text the request carries: method and parameters joined by blanks.
  std::string command() const;
};

// How the fake answers one request.
struct Reply {
  enum class Action { send, send_bytewise, silence, close, reset, split };
  Action action = Action::send;
  std::string text;
  std::chrono::microseconds delay{0};      // before the reply
  std::chrono::microseconds tail_delay{0}; // for split: between the two halves
  std::size_t split_at = 0;                // for split: bytes of the first half

  // {"jsonrpc":"2.0","result":"<text>","id":"..."}
  static Reply result(const std::string& text);
  // {"jsonrpc":"2.0","error":{"code":-32601,"message":"<message>"},"id":"..."}
  static Reply error(const std::string& message);
  static Reply raw(std::string text);
  static Reply bytewise(std::string text);
  static Reply split(std::string text, std::size_t at, std::chrono::microseconds tail_delay);
  static Reply silence();
  static Reply close();
  static Reply reset();
  // A valid reply whose result text pads it to `size` bytes.
  static Reply oversize(std::size_t size);
  static Reply not_json();
};

class FakeController {
public:
  using Handler = std::function<Reply(const Request&)>;

  // Answers every request with the result text "OK" unless a handler is set.
  explicit FakeController(Handler handler = nullptr);
  ~FakeController();

  uint16_t port() const { return server_->port(); }
  void set_handler(Handler handler);
  // Delay added before every reply (a controller that takes its time).
  void set_latency(std::chrono::microseconds latency);

  std::vector<Request> transcript() const;
  std::vector<std::string> commands() const;
  std::size_t request_count() const;
  void clear();

private:
  void serve(int fd);

  mutable std::mutex mutex_;
  Handler handler_;
  std::chrono::microseconds latency_{0};
  std::vector<Request> transcript_;
  std::unique_ptr<LoopbackServer> server_;
};

// Creates a TCP socket connected to 127.0.0.1:`port` with the library's helpers.
int connect_loopback(uint16_t port);

} // namespace varkel::testing
