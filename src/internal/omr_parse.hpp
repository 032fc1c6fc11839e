// The pair list the controller answers when every OMR field of a chip is read,
// and the OMR operations other families build on.
#pragma once

#include <cstdint>

#include "varkel.h"

namespace varkel::detail {

inline constexpr int kOmrFields = 21; // fields 0..20

// Stores the "<field> : <value>," pairs of `text` (zero-terminated) in `values`:
// fields 0..20 only, the counter depth converted from bits to its index. The walk
// is the bounded one of every list reply.
void store_omr_pairs(const char* text, int32_t (&values)[kOmrFields]);

// Every field of the chip selected on `owner` into `values` (get_omr's read).
// Returns the query code; `values` is left alone on failure.
int read_omr_fields(varkel_t* v, varkel_thread_t owner, int32_t (&values)[kOmrFields]);
// One field of the chip selected on `owner` ("HS_Get_OMR <field>") into *value,
// cached as the family's read-backs cache it when on the main channel. Returns
// the query code; a reply without a number leaves *value alone.
int read_omr_field(varkel_t* v, varkel_thread_t owner, varkel_omr_t number, int* value);
// Writes one field of the selected chip: the family's setter, or set_omr for a
// field outside the family. Returns their code.
int write_omr_field(varkel_t* v, varkel_omr_t number, int value);

} // namespace varkel::detail
