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

#include "ethernet.h"
#include "internal/channel.hpp"
#include "internal/handle.hpp"
#include "internal/protocol.hpp"
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

} // namespace
} // namespace varkel::detail

using namespace varkel::detail;

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
  // The receive time-out stays as the connection set it (600 s): setting it again
  // on every query would cost a system call for nothing.
  discard_waiting(fd);
  if (int rc = vcommand(varkel, cmd_format, args, owner); rc != 0)
    return rc;
  return receive(varkel, result, result_size, owner);
}

namespace {

int vquery_and_cache(varkel_t* varkel, varkel_thread_t owner, char* result, const char* cmd_format, va_list args)
{
  assert(cmd_format != NULL);
  char reply[kReplySize];
  if (int rc = vquery(varkel, reply, sizeof reply, cmd_format, args, owner); rc != 0)
    return rc;
  std::memset(result, 0, kReplySize);
  parse_json(varkel, reply, result);
  return 0;
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
