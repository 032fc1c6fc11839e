// The pair list the controller answers when every OMR field of a chip is read.
#pragma once

#include <cstdint>

namespace varkel::detail {

inline constexpr int kOmrFields = 21; // fields 0..20

// Stores the "<field> : <value>," pairs of `text` (zero-terminated) in `values`:
// fields 0..20 only, the counter depth converted from bits to its index. The walk
// is the bounded one of every list reply.
void store_omr_pairs(const char* text, int32_t (&values)[kOmrFields]);

} // namespace varkel::detail
