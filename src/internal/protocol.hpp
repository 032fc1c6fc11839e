// Pure protocol functions of the command channel: no I/O, testable on text alone.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace varkel::detail {

inline constexpr std::size_t kCommandSize = 512; // formatted command, terminating zero included
inline constexpr std::size_t kRequestSize = 512; // serialised request, terminating zero included
inline constexpr std::size_t kReplySize = 1024;  // received reply, terminating zero included
inline constexpr std::size_t kMaxParams = 4;
inline constexpr char kRequestId[] = "4925cfeb-4a68-4793-a9f8-18d618f428ef";

// Writes the JSON-RPC request for `command` into `out` (zero-terminated).
// Returns 0, or EOVERFLOW with an empty `out` when it does not fit.
int build_request(std::string_view command, std::span<char> out);

// Copies the text form of the reply's "result" member, else of its "error"
// member, into `out` (zero-terminated, cut to fit). Returns true when a member
// was found; otherwise `out` is empty.
bool extract_result(const char* reply, std::span<char> out);

enum class ReplyMember { none, result, error };

// As extract_result, and says which member it found. For an "error" member that
// is an object with a "message" string, `message` (when not empty) gets that
// string; else the member's text.
ReplyMember extract_member(const char* reply, std::span<char> out, std::span<char> message = {});

enum class ReplyShape { incomplete, complete, not_json };

// Whether the bytes received so far form one complete JSON object or array,
// may still become one, or plainly are not JSON (they do not start with { or [).
ReplyShape reply_shape(std::string_view text);

} // namespace varkel::detail
