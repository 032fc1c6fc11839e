// A serial line, any bytes: read_serialPort takes the second {...} part after
// the leading 'j' or fails with -2; the text it returns is terminated, starts
// with '{' and is never longer than the buffer allows.
#include <cstring>

#include "peer_bytes.hpp"
#include "varkel.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  silence_stdout();
  SaidAll line(data, size);
  char reply[256];
  static varkel_t* v = varkel_new(kinlet);
  const int rc = read_serialPort(v, line.fd, reply, sizeof reply);
  if (rc != -2 && (rc < 0 || static_cast<std::size_t>(rc) >= sizeof reply || (rc > 0 && reply[0] != '{') ||
                   std::strlen(reply) != static_cast<std::size_t>(rc)))
    __builtin_trap();
  return 0;
}
