// A scripted detector controller: the simulator's JSON-RPC server with the
// test's handler in place of the stateful one. It records each request and
// answers it as the handler says: a reply text sent whole, or one of the named
// failures of a hostile controller.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "json_rpc_server.hpp"
#include "loopback_server.hpp"

namespace varkel::testing {

using loopback::LoopbackServer;

// raw, method, params, and command(): method and parameters joined by blanks.
using Request = sim::Call;

// How the fake answers one request.
struct Reply : sim::Answer {
  using Action = sim::Delivery::Mode;
  Action action = Action::whole; // how the reply goes on the wire

  // {"jsonrpc":"2.0","result":"<text>","id":<the request's>}
  static Reply result(const std::string& text);
  // {"jsonrpc":"2.0","error":{"code":-32601,"message":"<message>"},"id":<the request's>}
  static Reply error(const std::string& message);
  static Reply raw(std::string text);
  static Reply bytewise(std::string text);
  // The first `at` bytes, the rest `tail_delay` later.
  static Reply split(std::string text, std::size_t at, std::chrono::microseconds tail_delay);
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
  std::size_t request_count() const { return transcript().size(); }
  void clear();

private:
  sim::Answer answer(const Request& request);

  mutable std::mutex mutex_;
  Handler handler_;
  std::chrono::microseconds latency_{0};
  std::vector<Request> transcript_;
  std::unique_ptr<sim::JsonRpcServer> server_;
};

// Creates a TCP socket connected to 127.0.0.1:`port` with the library's helpers.
int connect_loopback(uint16_t port);

} // namespace varkel::testing
