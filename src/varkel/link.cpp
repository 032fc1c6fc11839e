// Which shared-memory segment holds a handle's sample frame, and finding out
// whether the controllers are varkel-sim's.
#include <cassert>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "internal/handle.hpp"
#include "internal/protocol.hpp"
#include "link.h"

using namespace varkel::detail;

namespace {

// The identity request: varkel-sim answers it with a result of the form
// "varkel-sim VERSION model=MODEL module=N segment=NAME" (NAME empty when it
// publishes no frame); a controller of a real detector does not know it.
constexpr char kIdentityRequest[] = "varkel_Identity";
constexpr std::string_view kSimulatorWord = "varkel-sim ";
constexpr std::string_view kSegmentField = " segment=";

// A segment name shm_open takes and that names one file directly under /dev/shm.
bool valid_segment_name(std::string_view name)
{
  return name.size() >= 2 && name.size() <= HandleExtras::kSegmentNameMax && name.front() == '/' &&
         name.find('/', 1) == std::string_view::npos;
}

// The segment an identity text names; false when the text is not varkel-sim's.
bool simulator_segment(std::string_view identity, std::string_view& segment)
{
  if (!identity.starts_with(kSimulatorWord))
    return false;
  const std::size_t at = identity.find(kSegmentField);
  segment = at == std::string_view::npos ? std::string_view{} : identity.substr(at + kSegmentField.size());
  segment = segment.substr(0, segment.find(' '));
  return true;
}

void store_segment(varkel_t* v, std::string_view name)
{
  char* own = extras(v).frame_segment;
  name.copy(own, name.size());
  own[name.size()] = '\0';
}

} // namespace

int varkel_set_frame_segment(varkel_t* varkel, const char* name)
{
  assert(varkel != NULL);
  const std::string_view text(name == nullptr ? "" : name,
                              name == nullptr ? 0 : strnlen(name, HandleExtras::kSegmentNameMax + 1));
  if (!text.empty() && !valid_segment_name(text))
    return -3;
  store_segment(varkel, text);
  return 0;
}

int varkel_identify(varkel_t* varkel, char* identity, size_t size)
{
  assert(varkel != NULL);
  if (identity != nullptr && size > 0)
    identity[0] = '\0';
  // Module 1 answers for the detector; the main channel is left as it was.
  const int module = varkel->varkel_module, channel = varkel->varkel_interface;
  if (const int rc = select_module(varkel, 1); rc != 0)
    return rc;
  const uint64_t failures = varkel_failure_count(varkel);
  char reply[kReplySize];
  const int rc = query_and_cache(varkel, reply, "%s", kIdentityRequest);
  varkel->varkel_module = static_cast<uint8_t>(module);
  varkel->varkel_interface = channel;
  // A refusal (the error member of a controller that does not know the request)
  // is noted on the handle like any other and gives no identity.
  if (rc != 0 || varkel_failure_count(varkel) != failures)
    return rc;
  if (identity != nullptr && size > 0)
    std::snprintf(identity, size, "%s", reply);
  std::string_view segment;
  if (!simulator_segment(reply, segment) || (!segment.empty() && !valid_segment_name(segment)))
    return 0;
  varkel->simulate = 1;
  store_segment(varkel, segment);
  return 1;
}
