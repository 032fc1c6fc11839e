// The shapes most detector operations take, written once. Each operation names
// its template, its check, its reply format and its cache field; these do the rest.
#pragma once

#include <atomic>
#include <cassert>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <utility>

#include "internal/protocol.hpp"
#include "internal/selection.hpp"
#include "varkel.h"

// Templates are passed through as runtime format strings: their arguments are
// checked where each operation names its template.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

namespace varkel::detail {

// Send, status only: returns the query code.
template <typename... Args> int query_status(varkel_t* v, varkel_thread_t owner, const char* cmd, Args... args)
{
  char reply[kReplySize];
  return query_and_cache(v, owner, reply, cmd, args...);
}

// Send, scan the result text with `scan` (one conversion into a T) and, only when
// it parses, hand the value to `store`. Returns the query code; a reply that does
// not parse returns 0 and leaves the cache as it was.
template <typename T, typename Store, typename... Args>
int query_scan(varkel_t* v, varkel_thread_t owner, const char* scan, Store&& store, const char* cmd, Args... args)
{
  char reply[kReplySize];
  if (int rc = query_and_cache(v, owner, reply, cmd, args...); rc != 0)
    return rc;
  T value{};
  if (std::sscanf(reply, scan, &value) == 1)
    store(value);
  return 0;
}

// The set form of a set/read-back template on the main channel: -3 when the
// value was refused (nothing sent), else the query code.
template <typename... Args> int write_checked(varkel_t* v, bool valid, const char* cmd, Args... args)
{
  assert(v != NULL);
  return valid ? query_status(v, VARKEL_THREAD_MAIN, cmd, 1u, args...) : -3;
}

// As write_checked for one value, which is stored in `field` once the controller
// has answered (the requested value, not the reply).
template <typename Field> int write_and_store(varkel_t* v, bool valid, Field& field, Field value, const char* cmd)
{
  const int rc = write_checked(v, valid, cmd, static_cast<unsigned>(value));
  if (rc == 0)
    field = value;
  return rc;
}

// The read-back form on the main channel: the reply scanned with `scan` (one
// conversion into a T) is cached in `field`; a reply that does not parse leaves
// it alone. Returns the query code.
template <typename T, typename Field, typename... Args>
int read_into(varkel_t* v, const char* scan, Field& field, const char* cmd, Args... args)
{
  assert(v != NULL);
  return query_scan<T>(
      v, VARKEL_THREAD_MAIN, scan, [&](T x) { field = static_cast<Field>(x); }, cmd, args...);
}

// The set form whose reply echoes the value: -3 when refused (nothing sent), else
// the query code; the echoed value is cached in `field` as read_into does.
template <typename T, typename Field>
int write_echo_into(varkel_t* v, bool valid, const char* scan, Field& field, const char* cmd, unsigned value)
{
  return valid ? read_into<T>(v, scan, field, cmd, 1u, value) : -3;
}

// The read-back form of a template whose reply is not read: the query code.
inline int read_back(varkel_t* v, const char* cmd)
{
  assert(v != NULL);
  return query_status(v, VARKEL_THREAD_MAIN, cmd, 0u, 0u);
}

// Send, compare the whole result text with each known text and store the value
// paired with the one that matches; any other text leaves `field` alone.
// Returns the query code.
template <typename T, typename... Args>
int query_match(varkel_t* v, std::initializer_list<std::pair<const char*, T>> texts, T& field, const char* cmd,
                Args... args)
{
  char reply[kReplySize];
  if (int rc = query_and_cache(v, reply, cmd, args...); rc != 0)
    return rc;
  for (const auto& [text, value] : texts) {
    if (std::strcmp(reply, text) == 0)
      field = value;
  }
  return 0;
}

// One worker per module, each on its own channel; returns the OR of the step
// results. The team has one thread per module: the workers wait on sockets, so
// they must not queue behind the number of cores.
template <typename Step> int for_each_module_parallel(varkel_t* v, Step&& step)
{
  const int modules = v->max_num_modules;
  if (modules <= 0)
    return 0;
  std::atomic<int> result{0};
#pragma omp parallel for num_threads(modules) schedule(static)
  for (int m = 0; m < modules; ++m) {
    ModuleWorkerScope worker;
    result.fetch_or(step(static_cast<varkel_thread_t>(m)), std::memory_order_relaxed);
  }
  return result.load();
}

// Whether a fan-out counts the result of each module selection in its own.
enum class Selection { counted, ignored };

// For each module 1..max_num_modules in turn, on the caller's thread: point the
// main channel at it (select_module), then run step(module number). Leaves the
// main channel on the last module. Returns the OR of the step results and, unless
// ignored, of the selection results.
template <typename Step>
int for_each_module_selected(varkel_t* v, Step&& step, Selection selection = Selection::counted)
{
  int result = 0;
  for (int m = 1; m <= v->max_num_modules; ++m) {
    const int selected = select_module(v, m);
    if (selection == Selection::counted)
      result |= selected;
    result |= step(m);
  }
  return result;
}

} // namespace varkel::detail

#pragma GCC diagnostic pop
