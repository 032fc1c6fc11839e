// The pure part of a DAC scan: choosing the point nearest the aim.
#pragma once

namespace varkel::detail {

struct ScanChoice {
  int digital = 0;
  float analog = 0.0f;
};

// The entry of a scan reply ("<code> : <volts>," ...) whose voltage lies nearest
// `aim`: only an entry strictly closer than the aim itself qualifies, i.e. one
// strictly between 0 V and twice the aim; of two at the same distance the earlier
// stays. {0, 0} when none qualifies. The text is walked as the DAC list replies are.
ScanChoice choose_scan_point(const char* text, float aim);

} // namespace varkel::detail
