// The command channel: the only code that sends to or receives from a detector
// controller. Every detector operation goes through query_and_cache, which drains
// stale input, formats and sends one JSON-RPC request, receives one reply and
// hands back its result text; the trace of both directions is written here and
// nowhere else.
#include <cassert>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "ethernet.h"
#include "internal/channel.hpp"
#include "internal/handle.hpp"
#include "internal/protocol.hpp"
#include "internal/tcp.hpp"
#include "utils.h"

namespace varkel::detail {

int channel_socket(const varkel_t* v, varkel_thread_t owner)
{
  int fd = -1;
  if (owner == VARKEL_THREAD_MAIN)
    fd = v->varkel_interface;
  else if (owner >= VARKEL_THREAD_MODULE1 && owner <= VARKEL_THREAD_MODULE4)
    fd = v->fd[owner];
  return fd > 0 ? fd : -1;
}

namespace {

// Sends all of `text`, never raising SIGPIPE. Returns 0 or errno.
int send_all(int fd, const char* text, std::size_t size)
{
  while (size > 0) {
    const ssize_t n = send(fd, text, size, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR)
        continue;
      return errno;
    }
    text += n;
    size -= static_cast<std::size_t>(n);
  }
  return 0;
}

// Waits for the rest of a reply that arrived in part, until it forms one complete
// JSON value, `buf` is full, or nothing more arrives within the continuation wait
// (counted from the last segment: a signal does not restart it). Returns the new
// length.
std::size_t complete_reply(int fd, char* buf, std::size_t len, std::size_t capacity)
{
  using Clock = std::chrono::steady_clock;
  auto deadline = Clock::now() + kReplyContinuationWait;
  while (len < capacity && reply_shape({buf, len}) == ReplyShape::incomplete) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd p{fd, POLLIN, 0};
    const int ready = left > 0 ? poll(&p, 1, static_cast<int>(left)) : 0;
    if (ready < 0 && errno == EINTR)
      continue;
    if (ready <= 0)
      break;
    const ssize_t n = recv(fd, buf + len, capacity - len, MSG_DONTWAIT);
    if (n <= 0)
      break;
    len += static_cast<std::size_t>(n);
    deadline = Clock::now() + kReplyContinuationWait;
  }
  return len;
}

// The command this thread sent last, for the failure record: a query formats
// and sends on the caller's thread, so each module worker keeps its own.
thread_local char last_sent[kCommandSize];

// Module (1-based) that channel `owner` reaches: a worker's own, or the one the
// main channel has selected.
int module_of(const varkel_t* v, varkel_thread_t owner)
{
  return owner == VARKEL_THREAD_MAIN ? v->varkel_module : static_cast<int>(owner) + 1;
}

// The receive time-out of `fd` in seconds, for the words of a reply that never came.
double receive_timeout_s(int fd)
{
  timeval tv{};
  socklen_t size = sizeof tv;
  if (fd < 0 || getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, &size) != 0)
    return 0;
  return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
}

// Notes what went wrong with one query on the handle's failure record: a
// refusal, a reply that never came, or a connection the controller closed.
void note_query_failure(varkel_t* v, varkel_thread_t owner, int rc, ReplyMember member, const char* reply,
                        const char* words)
{
  const int module = module_of(v, owner);
  if (rc == ENOTCONN) {
    note_failure(v, rc, module, 0, nullptr, nullptr, "is not connected");
  } else if (rc == -1) {
    const int fd = channel_socket(v, owner);
    const double limit = receive_timeout_s(fd);
    if (fd < 0)
      note_failure(v, rc, module, 0, last_sent, nullptr, "is not connected");
    else if (limit > 0)
      note_failure(v, rc, module, 0, last_sent, nullptr, "did not answer %s within %g s", last_sent, limit);
    else
      note_failure(v, rc, module, 0, last_sent, nullptr, "did not answer %s", last_sent);
  } else if (rc != 0) {
    note_failure(v, rc, module, 0, last_sent, nullptr, "cannot send %s: %s", last_sent, std::strerror(rc));
  } else if (member == ReplyMember::error) {
    note_failure(v, VARKEL_REFUSED, module, 0, last_sent, words, "the controller refused %s: %s", last_sent, words);
  } else if (reply[0] == '\0') {
    note_failure(v, -1, module, 0, last_sent, nullptr, "closed the connection (no reply to %s)", last_sent);
  }
}

} // namespace

void note_failure(varkel_t* v, int code, int module, int chip, const char* command, const char* reply,
                  const char* format, ...)
{
  HandleExtras& e = extras(v);
  std::lock_guard lock(e.failure_mutex);
  varkel_failure_t& f = e.failure;
  f.code = code;
  f.module = module;
  f.chip = chip;
  std::snprintf(f.command, sizeof f.command, "%s", command ? command : "");
  std::snprintf(f.reply, sizeof f.reply, "%s", reply ? reply : "");
  va_list args;
  va_start(args, format);
  std::vsnprintf(f.text, sizeof f.text, format, args);
  va_end(args);
  e.failures.fetch_add(1, std::memory_order_release);
}

void note_failure_chip(varkel_t* v, int chip)
{
  HandleExtras& e = extras(v);
  std::lock_guard lock(e.failure_mutex);
  e.failure.chip = chip;
}

} // namespace varkel::detail

using namespace varkel::detail;

uint64_t varkel_failure_count(varkel_t* varkel) { return extras(varkel).failures.load(std::memory_order_acquire); }

int varkel_last_failure(varkel_t* varkel, varkel_failure_t* failure)
{
  HandleExtras& e = extras(varkel);
  std::lock_guard lock(e.failure_mutex);
  if (failure != nullptr)
    *failure = e.failure;
  return e.failure.code;
}

int print_json(varkel_t*, const char* cmd, char* buff)
{
  // The request buffer is kRequestSize bytes; an over-long request is refused whole.
  return build_request(cmd, {buff, kRequestSize});
}

int parse_json(varkel_t*, const char* buff, char* parse_result)
{
  return extract_result(buff, {parse_result, kReplySize}) ? 0 : -2;
}

int vcommand(varkel_t* varkel, const char* cmd_format, va_list args, varkel_thread_t owner)
{
  assert(varkel != NULL);
  assert(cmd_format != NULL);

  char command[kCommandSize];
  errno = 0;
  const int length = vsnprintf(command, sizeof command, cmd_format, args);
  if (length < 0)
    return errno != 0 ? errno : EINVAL;
  if (static_cast<std::size_t>(length) >= sizeof command)
    return EOVERFLOW;

  const int fd = channel_socket(varkel, owner);
  if (fd < 0)
    return ENOTCONN;

  std::memcpy(last_sent, command, static_cast<std::size_t>(length) + 1);
  char request[kRequestSize];
  if (int rc = print_json(varkel, command, request); rc != 0)
    return rc;
  print_debug(varkel->debug_out, "[SEND]", request);
  if (int rc = send_all(fd, request, std::strlen(request)); rc != 0)
    return rc;
  extras(varkel).commands.fetch_add(1, std::memory_order_relaxed);
  printf("\nOWNER: %d - SENT TO K64: %s\n", owner, request);
  return 0;
}

int receive(varkel_t* varkel, char* result, uint64_t result_size, varkel_thread_t owner)
{
  assert(varkel != NULL);
  if (result_size == 0)
    return -1;
  std::memset(result, 0, result_size);

  const int fd = channel_socket(varkel, owner);
  ssize_t rc = -1;
  if (fd >= 0) {
    // A SIGALRM of the acquisition timer (caught without SA_RESTART) must not
    // turn into a failed query: a wait it cuts short is resumed.
    do
      rc = recv(fd, result, result_size, 0);
    while (rc < 0 && errno == EINTR);
  }
  if (rc < 0) {
    printf("OWNER: %d RC: %d - GET FROM K64 (JSON): %s\n", owner, static_cast<int>(rc), result);
    return -1;
  }
  std::size_t len = static_cast<std::size_t>(rc);
  if (len > 0)
    len = complete_reply(fd, result, len, result_size);
  // A reply that fills the buffer is cut to result_size - 1 characters.
  result[len == result_size ? len - 1 : len] = '\0';

  printf("OWNER: %d RC: %d - GET FROM K64 (JSON): %s\n", owner, static_cast<int>(len), result);
  print_debug(varkel->debug_out, "[RECV]", result);
  return 0;
}

int vquery(varkel_t* varkel, char* result, uint64_t result_size, const char* cmd_format, va_list args,
           varkel_thread_t owner)
{
  assert(varkel != NULL);
  const int fd = channel_socket(varkel, owner);
  if (fd < 0)
    return ENOTCONN;
  // After the drain the receive time-out is the handle's reply bound (600 s unless
  // varkel_set_timeouts set one): a caller who attached a socket relies on that.
  discard_waiting(fd);
  ensure_timeout(fd, reply_timeout_us(extras(varkel)));
  if (int rc = vcommand(varkel, cmd_format, args, owner); rc != 0)
    return rc;
  return receive(varkel, result, result_size, owner);
}

namespace {

int vquery_and_cache(varkel_t* varkel, varkel_thread_t owner, char* result, const char* cmd_format, va_list args)
{
  assert(cmd_format != NULL);
  char reply[kReplySize];
  last_sent[0] = '\0';
  const int rc = vquery(varkel, reply, sizeof reply, cmd_format, args, owner);
  ReplyMember member = ReplyMember::none;
  char words[256] = "";
  if (rc == 0) {
    // The result text as parse_json extracts it, with the member it came from.
    std::memset(result, 0, kReplySize);
    member = extract_member(reply, {result, kReplySize}, words);
  }
  if (rc != 0 || member == ReplyMember::error || reply[0] == '\0')
    note_query_failure(varkel, owner, rc, member, reply, words);
  return rc;
}

} // namespace

int query_and_cache(varkel_t* varkel, char* result, const char* cmd_format, ...)
{
  va_list args;
  va_start(args, cmd_format);
  const int rc = vquery_and_cache(varkel, VARKEL_THREAD_MAIN, result, cmd_format, args);
  va_end(args);
  return rc;
}

int query_and_cache(varkel_t* varkel, varkel_thread_t owner, char* result, const char* cmd_format, ...)
{
  va_list args;
  va_start(args, cmd_format);
  const int rc = vquery_and_cache(varkel, owner, result, cmd_format, args);
  va_end(args);
  return rc;
}
