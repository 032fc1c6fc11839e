// A JSON-RPC 2.0 peer on the shared loopback plumbing: it splits each connection's
// byte stream into request objects, hands method and parameters to a handler and
// sends the handler's answer back as one reply.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "loopback_server.hpp"

namespace varkel::sim {

struct Call {
  std::string method;
  std::vector<std::string> params; // the words of the command after the method
};

// A "result" text, or an "error" with a JSON-RPC code.
struct Answer {
  bool ok = true;
  std::string text;
  int code = 0;

  static Answer result(std::string text) { return {true, std::move(text), 0}; }
  static Answer error(int code, std::string message) { return {false, std::move(message), code}; }
};

inline constexpr int kParseError = -32700;
inline constexpr int kInvalidRequest = -32600;
inline constexpr int kMethodNotFound = -32601;
inline constexpr int kInvalidParams = -32602;
inline constexpr int kServerError = -32000; // the command was understood and refused

class JsonRpcServer {
public:
  using Handler = std::function<Answer(const Call&)>;
  // Called after each exchange with the command text and the reply sent.
  using Log = std::function<void(const std::string& command, const std::string& reply)>;

  JsonRpcServer(Handler handler, std::chrono::microseconds latency, const char* host, uint16_t port, Log log = {});
  ~JsonRpcServer();

  uint16_t port() const { return server_->port(); }
  void stop() { server_->stop(); }

private:
  void serve(int fd);

  Handler handler_;
  std::chrono::microseconds latency_;
  Log log_;
  std::unique_ptr<varkel::loopback::LoopbackServer> server_;
};

// The reply text for `answer` to a request whose "id" member is `id_json` (JSON
// text, "null" when the request had none).
std::string reply_text(const Answer& answer, const std::string& id_json);

} // namespace varkel::sim
