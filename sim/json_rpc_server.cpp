#include "json_rpc_server.hpp"

#include <cerrno>
#include <json-c/json.h>
#include <optional>
#include <sys/socket.h>
#include <thread>

namespace varkel::sim {

namespace {

using JsonPtr = std::unique_ptr<json_object, decltype(&json_object_put)>;

struct Parsed {
  Call call;
  std::string id_json = "null";
  std::optional<Answer> refusal; // set when the object is no usable request
};

Parsed parse_request(json_object* obj)
{
  Parsed p;
  json_object* member = nullptr;
  if (json_object_object_get_ex(obj, "id", &member))
    p.id_json = json_object_to_json_string_ext(member, JSON_C_TO_STRING_PLAIN);
  if (!json_object_is_type(obj, json_type_object) || !json_object_object_get_ex(obj, "method", &member) ||
      !json_object_is_type(member, json_type_string)) {
    p.refusal = Answer::error(kInvalidRequest, "Invalid Request");
    return p;
  }
  p.call.method = json_object_get_string(member);
  // "params": [[word, ...]]; a flat list of words is taken as well.
  if (json_object_object_get_ex(obj, "params", &member) && json_object_is_type(member, json_type_array)) {
    json_object* words = member;
    if (json_object_array_length(member) == 1 &&
        json_object_is_type(json_object_array_get_idx(member, 0), json_type_array))
      words = json_object_array_get_idx(member, 0);
    for (std::size_t i = 0; i < json_object_array_length(words); ++i)
      p.call.params.emplace_back(json_object_get_string(json_object_array_get_idx(words, i)));
  }
  return p;
}

} // namespace

std::string Call::command() const
{
  std::string text = method;
  for (const auto& p : params)
    text += " " + p;
  return text;
}

std::string reply_text(const Answer& answer, const std::string& id_json)
{
  JsonPtr reply(json_object_new_object(), json_object_put);
  json_object_object_add(reply.get(), "jsonrpc", json_object_new_string("2.0"));
  if (answer.ok) {
    json_object_object_add(reply.get(), "result", json_object_new_string(answer.text.c_str()));
  } else {
    json_object* error = json_object_new_object();
    json_object_object_add(error, "code", json_object_new_int(answer.code));
    json_object_object_add(error, "message", json_object_new_string(answer.text.c_str()));
    json_object_object_add(reply.get(), "error", error);
  }
  json_object_object_add(reply.get(), "id", json_tokener_parse(id_json.c_str()));
  return json_object_to_json_string_ext(reply.get(), JSON_C_TO_STRING_PLAIN);
}

JsonRpcServer::JsonRpcServer(Handler handler, std::chrono::microseconds latency, const char* host, uint16_t port,
                             Log log)
    : handler_(std::move(handler)), latency_(latency), log_(std::move(log)),
      server_(std::make_unique<varkel::loopback::LoopbackServer>([this](int fd) { serve(fd); }, host, port))
{
}

JsonRpcServer::~JsonRpcServer() { server_->stop(); }

void JsonRpcServer::serve(int fd)
{
  std::unique_ptr<json_tokener, decltype(&json_tokener_free)> tokener(json_tokener_new(), json_tokener_free);
  std::string pending; // the bytes of a request object received in part
  char buf[4096];
  for (;;) {
    const ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return;
    // Requests arrive back to back without separators: the tokener resumes where
    // the previous object ended and waits for the rest of a split one.
    std::size_t offset = 0;
    while (offset < static_cast<std::size_t>(n)) {
      const char* chunk = buf + offset;
      const std::size_t size = static_cast<std::size_t>(n) - offset;
      json_object* obj = json_tokener_parse_ex(tokener.get(), chunk, static_cast<int>(size));
      const json_tokener_error err = json_tokener_get_error(tokener.get());
      if (err == json_tokener_continue) {
        pending.append(chunk, size);
        break;
      }
      Answer answer;
      std::string id_json = "null";
      std::string command;
      if (err != json_tokener_success) {
        answer = Answer::error(kParseError, "Parse error");
        offset = static_cast<std::size_t>(n); // drop the rest of what arrived
      } else {
        JsonPtr owner(obj, json_object_put);
        const std::size_t end = json_tokener_get_parse_end(tokener.get());
        offset += end;
        Parsed p = parse_request(obj);
        p.call.raw = pending.append(chunk, end);
        command = p.call.command();
        id_json = p.id_json;
        answer = p.refusal ? *p.refusal : handler_(p.call);
      }
      json_tokener_reset(tokener.get());
      pending.clear();
      const std::string reply = answer.raw ? *answer.raw : reply_text(answer, id_json);
      if (latency_.count() > 0)
        std::this_thread::sleep_for(latency_);
      if (log_)
        log_(command, reply);
      if (!loopback::deliver(fd, reply.data(), reply.size(), answer.delivery))
        return;
    }
  }
}

} // namespace varkel::sim
