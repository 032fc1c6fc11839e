// Any reply text: parse_json finds "result" or "error" or reports -2, and
// always leaves a terminated result within its 1024 bytes.
#include <cstring>

#include "peer_bytes.hpp"
#include "varkel.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  silence_stdout();
  char reply[1024]{};
  std::memcpy(reply, data, size < sizeof reply ? size : sizeof reply - 1);
  char result[1024];
  std::memset(result, 'x', sizeof result);
  static varkel_t* v = varkel_new(kinlet);
  const int rc = parse_json(v, reply, result);
  if ((rc != 0 && rc != -2) || strnlen(result, sizeof result) == sizeof result || (rc != 0 && result[0] != '\0'))
    __builtin_trap();
  return 0;
}
