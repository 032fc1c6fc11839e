// The times an acquisition accepts, shared by the library's setters and the
// workflow that checks a whole request before it writes any of it.
#pragma once

#include <cmath>

#include "varkel.h"

namespace varkel::detail {

// Microseconds do not fit 32 bits from these values on: such times are refused.
inline constexpr double kMaxAcquireTimeS = 4294.967296;
inline constexpr double kMaxPeriodS = 2147.483648;

inline bool valid_acquire_time(float s) { return std::isfinite(s) && s >= 0.0f && s < kMaxAcquireTimeS; }
inline bool valid_period(float s) { return std::isfinite(s) && s >= 0.0f && s < kMaxPeriodS; }

// Whether an exposure of `exposure` s runs within a period of `period` s: a period
// of 0 lifts the rule; else the exposure leaves the image readout, in single
// precision, by the check of set_acquireTime and by that of set_periodTime (the
// two round apart at the edge).
inline bool exposure_fits(float exposure, float period)
{
  return period == 0.0f || !(exposure > period - IMAGE_READOUT || exposure + IMAGE_READOUT > period);
}

} // namespace varkel::detail
