// The list replies of the controller: entries "<number> : <value>," one after
// another. A pure, bounded walk over such a text.
#pragma once

#include <cstdio>
#include <cstring>
#include <type_traits>

namespace varkel::detail {

// Calls store(number, value) for each entry of `text` (zero-terminated), values
// read as T (int or float). An entry whose two numbers do not parse ends the walk
// unstored; an entry without its comma is stored and ends the walk. Every step
// moves forward, so the walk ends within the text.
template <typename T, typename Store> void walk_pairs(const char* text, Store&& store)
{
  static_assert(std::is_same_v<T, int> || std::is_same_v<T, float>);
  const char* format = std::is_same_v<T, int> ? "%d : %d,%n" : "%d : %f,%n";
  const std::size_t length = std::strlen(text);
  for (std::size_t at = 0; at < length;) {
    int number = 0;
    int used = 0;
    T value{};
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    if (std::sscanf(text + at, format, &number, &value, &used) != 2)
      return;
#pragma GCC diagnostic pop
    store(number, value);
    if (used <= 0)
      return;
    at += static_cast<std::size_t>(used);
  }
}

} // namespace varkel::detail
