// A controller reply stream, any bytes: the end of the reply is found without
// reading past the buffer, the received text is cut to 1023 characters, and the
// framing of a prefix never contradicts the framing of the whole.
#include <cstring>

#include "internal/protocol.hpp"
#include "peer_bytes.hpp"
#include "varkel.h"

using varkel::detail::reply_shape;
using varkel::detail::ReplyShape;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  silence_stdout();
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const ReplyShape whole = reply_shape(text);
  // What is complete (or plainly not JSON) in its first bytes stays so, whatever follows.
  for (std::size_t cut : {size / 2, size - (size > 0)}) {
    const ReplyShape part = reply_shape(text.substr(0, cut));
    if (part != ReplyShape::incomplete && part != whole)
      __builtin_trap();
  }

  static varkel_t* v = varkel_new(kinlet);
  SaidAll peer(data, size);
  v->fd[0] = peer.fd;
  char reply[1024];
  if (receive(v, reply, sizeof reply, VARKEL_THREAD_MODULE1) != 0 || strnlen(reply, sizeof reply) == sizeof reply)
    __builtin_trap();
  v->fd[0] = 0;
  return 0;
}
