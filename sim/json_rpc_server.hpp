// A JSON-RPC 2.0 peer on the shared loopback plumbing: it splits each connection's
// byte stream into request objects, hands method and parameters to a handler and
// sends the handler's answer back as one reply, or, when the handler says so, as
// a hostile controller would (cut, dripped, withheld, or with the connection gone).
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "loopback_server.hpp"

namespace varkel::sim {

struct Call {
  std::string method;
  std::vector<std::string> params; // the words of the command after the method
  std::string raw;                 // the request's own bytes
  // The command text: method and parameters joined by blanks.
  std::string command() const;
};

using loopback::Delivery;

// A "result" text, or an "error" with a JSON-RPC code, or bytes sent as they are.
struct Answer {
  bool ok = true;
  std::string text;
  int code = 0;
  std::optional<std::string> raw; // when set, sent instead of a reply built from the above
  Delivery delivery;

  static Answer result(std::string text) { return make(true, std::move(text), 0); }
  static Answer error(int code, std::string message) { return make(false, std::move(message), code); }
  static Answer verbatim(std::string bytes, Delivery::Mode mode = Delivery::Mode::whole)
  {
    Answer a;
    a.raw = std::move(bytes);
    a.delivery.mode = mode;
    return a;
  }

private:
  static Answer make(bool ok, std::string text, int code)
  {
    Answer a;
    a.ok = ok;
    a.text = std::move(text);
    a.code = code;
    return a;
  }
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
