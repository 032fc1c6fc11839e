#include "internal/protocol.hpp"

#include <cerrno>
#include <cstring>
#include <json-c/json.h>
#include <memory>
#include <string>
#include <vector>

namespace varkel::detail {

namespace {

struct JsonDeleter {
  void operator()(json_object* o) const { json_object_put(o); }
};
using JsonPtr = std::unique_ptr<json_object, JsonDeleter>;

// Copies `text` into `out` as a zero-terminated string, cut to fit.
void copy_text(std::string_view text, std::span<char> out)
{
  if (out.empty())
    return;
  const std::size_t n = std::min(text.size(), out.size() - 1);
  if (n > 0)
    std::memcpy(out.data(), text.data(), n);
  out[n] = '\0';
}

} // namespace

int build_request(std::string_view command, std::span<char> out)
{
  std::vector<std::string_view> words;
  std::size_t pos = 0;
  while (words.size() < 1 + kMaxParams) {
    pos = command.find_first_not_of(' ', pos);
    if (pos == std::string_view::npos)
      break;
    const std::size_t end = std::min(command.find(' ', pos), command.size());
    words.push_back(command.substr(pos, end - pos));
    pos = end;
  }
  const std::string_view method = words.empty() ? std::string_view{} : words.front();

  JsonPtr request{json_object_new_object()};
  json_object* params = json_object_new_array();
  json_object* inner = json_object_new_array();
  for (std::size_t i = 1; i < words.size(); ++i)
    json_object_array_add(inner, json_object_new_string_len(words[i].data(), static_cast<int>(words[i].size())));
  json_object_array_add(params, inner);
  json_object_object_add(request.get(), "id", json_object_new_string(kRequestId));
  json_object_object_add(request.get(), "params", params);
  json_object_object_add(request.get(), "jsonrpc", json_object_new_string("2.0"));
  json_object_object_add(request.get(), "method",
                         json_object_new_string_len(method.data(), static_cast<int>(method.size())));

  const std::string_view text = json_object_to_json_string_ext(request.get(), JSON_C_TO_STRING_PLAIN);
  if (out.empty())
    return EOVERFLOW;
  if (text.size() >= out.size()) {
    // A cut request would be broken JSON on the wire: refuse it whole.
    out[0] = '\0';
    return EOVERFLOW;
  }
  copy_text(text, out);
  return 0;
}

ReplyMember extract_member(const char* reply, std::span<char> out, std::span<char> message)
{
  copy_text({}, out);
  copy_text({}, message);
  JsonPtr parsed{json_tokener_parse(reply)};
  if (!parsed)
    return ReplyMember::none;
  json_object* member = nullptr;
  ReplyMember found = ReplyMember::result;
  if (!json_object_object_get_ex(parsed.get(), "result", &member)) {
    if (!json_object_object_get_ex(parsed.get(), "error", &member))
      return ReplyMember::none;
    found = ReplyMember::error;
  }
  // json-c's string form: a string's own text, any other value its spaced JSON text.
  const char* text = json_object_get_string(member);
  copy_text(text ? text : "null", out);
  if (found == ReplyMember::error) {
    json_object* words = nullptr;
    const bool has_words = json_object_is_type(member, json_type_object) &&
                           json_object_object_get_ex(member, "message", &words) &&
                           json_object_is_type(words, json_type_string);
    copy_text(has_words ? json_object_get_string(words) : (text ? text : "null"), message);
  }
  return found;
}

bool extract_result(const char* reply, std::span<char> out) { return extract_member(reply, out) != ReplyMember::none; }

ReplyShape reply_shape(std::string_view text)
{
  const std::size_t start = text.find_first_not_of(" \t\r\n");
  if (start == std::string_view::npos)
    return ReplyShape::incomplete;
  if (text[start] != '{' && text[start] != '[')
    return ReplyShape::not_json;

  int depth = 0;
  bool in_string = false;
  bool escaped = false;
  for (std::size_t i = start; i < text.size(); ++i) {
    const char c = text[i];
    if (in_string) {
      if (escaped)
        escaped = false;
      else if (c == '\\')
        escaped = true;
      else if (c == '"')
        in_string = false;
      continue;
    }
    if (c == '"')
      in_string = true;
    else if (c == '{' || c == '[')
      ++depth;
    else if ((c == '}' || c == ']') && --depth == 0)
      return ReplyShape::complete;
  }
  return ReplyShape::incomplete;
}

} // namespace varkel::detail
