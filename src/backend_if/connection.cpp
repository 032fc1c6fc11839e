#include "ethernet.h"
#include "internal/backend.hpp"

namespace varkel::detail {

void release_backend(varkel_t* v)
{
  if (v->backend_socket >= 0) {
    safe_close(v->backend_socket);
    v->backend_socket = -1;
  }
}

} // namespace varkel::detail
