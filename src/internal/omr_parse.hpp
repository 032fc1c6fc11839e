// The pair list the controller answers when every OMR field of a chip is read:
// "<field> : <value>," repeated. A pure parse over the reply text.
#pragma once

#include <cctype>
#include <charconv>
#include <cstddef>
#include <string_view>

namespace varkel::detail {

inline constexpr int kOmrFields = 21; // fields 0..20

namespace omr_parse {

inline void skip_blanks(std::string_view s, std::size_t& pos)
{
  while (pos < s.size() && std::isspace(static_cast<unsigned char>(s[pos])))
    ++pos;
}

// A decimal int at `pos` after optional blanks and sign, as "%d" reads it.
// False, with `pos` unspecified, when there is none or it does not fit an int.
inline bool read_int(std::string_view s, std::size_t& pos, int& out)
{
  skip_blanks(s, pos);
  if (pos < s.size() && s[pos] == '+' && pos + 1 < s.size() && s[pos + 1] != '-')
    ++pos;
  const char* first = s.data() + pos;
  const auto [end, ec] = std::from_chars(first, s.data() + s.size(), out);
  if (ec != std::errc())
    return false;
  pos += static_cast<std::size_t>(end - first);
  return true;
}

} // namespace omr_parse

// Calls store(field, value) for each pair at the start of `text`, in order, for
// fields 0..20 only (others are read and skipped). Stops at the end of the text,
// at the first text that is not a pair, and after a pair without its comma: every
// pass either consumes a whole pair or ends the loop. Returns the pairs read.
template <typename Store> std::size_t parse_omr_pairs(std::string_view text, Store&& store)
{
  using namespace omr_parse;
  std::size_t pos = 0;
  std::size_t pairs = 0;
  while (pos < text.size()) {
    int field = 0;
    int value = 0;
    if (!read_int(text, pos, field))
      break;
    skip_blanks(text, pos);
    if (pos >= text.size() || text[pos] != ':')
      break;
    ++pos;
    if (!read_int(text, pos, value))
      break;
    ++pairs;
    if (field >= 0 && field < kOmrFields)
      store(field, value);
    if (pos >= text.size() || text[pos] != ',')
      break;
    ++pos;
  }
  return pairs;
}

} // namespace varkel::detail
