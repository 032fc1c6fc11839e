// Our layers never report success for a command the controller refused: the
// library's own calls return 0 for a refusal (their result is the error's text),
// so a call is judged by the failures it noted on the handle as well.
#pragma once

#include <cstdint>

#include "refusal.h"
#include "varkel.h"

namespace varkel::detail {

// Runs `call` (a library call returning a code): its code when non-zero; else the
// code of the last failure it noted on the handle (VARKEL_REFUSED for a refusal,
// -1 for a connection closed without a reply); else 0.
template <typename Call> int truthful(varkel_t* v, Call&& call)
{
  const uint64_t before = varkel_failure_count(v);
  const int rc = call();
  if (rc != 0 || varkel_failure_count(v) == before)
    return rc;
  return varkel_last_failure(v, nullptr);
}

} // namespace varkel::detail
