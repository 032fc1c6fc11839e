// The POSIX-thread fan-out: one thread per module, each handed a context record
// of its own, created and joined inside one call.
#pragma once

#include <array>
#include <cstdio>
#include <cstring>
#include <pthread.h>

#include "internal/selection.hpp"

namespace varkel::detail {

// Starts worker(&contexts[i]) for module indices 0..count - 1 (at most 4), each on
// its own thread with default attributes and marked a module worker, so that its
// selections leave sensor_pos alone. Joins the started threads in index order and
// calls joined(i) after each. A thread that cannot be started is named on standard
// error and its module skipped; the others still run. Returns 0, or the OR of the
// error numbers of the threads that could not be started.
template <typename Context, typename Joined>
int run_module_threads(Context* contexts, int count, void* (*worker)(void*), Joined&& joined)
{
  // What one started thread runs: the worker, inside a worker scope.
  struct Start {
    void* (*worker)(void*);
    void* context;
    static void* run(void* data)
    {
      const Start* start = static_cast<const Start*>(data);
      ModuleWorkerScope scope;
      return start->worker(start->context);
    }
  };
  std::array<Start, 4> starts{};
  std::array<pthread_t, 4> threads{};
  std::array<bool, 4> started{};
  int result = 0;
  const int n = count < 0 ? 0 : (count > 4 ? 4 : count);
  for (int i = 0; i < n; ++i) {
    starts[i] = {worker, &contexts[i]};
    const int rc = pthread_create(&threads[i], nullptr, &Start::run, &starts[i]);
    started[i] = rc == 0;
    if (rc != 0) {
      std::fprintf(stderr, "Module[%d]: its thread could not be started: %s\n", i + 1, std::strerror(rc));
      result |= rc;
    }
  }
  for (int i = 0; i < n; ++i) {
    if (!started[i])
      continue;
    pthread_join(threads[i], nullptr);
    joined(i);
  }
  return result;
}

} // namespace varkel::detail
