#include <array>
#include <cassert>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "internal/backend_records.hpp"

namespace varkel::detail {

namespace {

void append_format(std::string& out, const char* format, auto... args)
{
  char line[64];
  const int n = std::snprintf(line, sizeof line, format, args...);
  if (n > 0)
    out.append(line, static_cast<std::size_t>(n) < sizeof line ? static_cast<std::size_t>(n) : sizeof line - 1);
}

constexpr std::array<FrameSegment, 4> kSegments{{
    {"/dev/shm/varkel_Trio_array_data", "/varkel_Trio_array_data",
     "/dev/shm/varkel_Trio_array_data shared memory file not found",
     "Cannot open shared memory file /dev/shm/varkel_Trio_array_data for array data."},
    {"/dev/shm/varkel_Trio_array_data_sim", "/varkel_Trio_array_data_sim",
     "/dev/shm/varkel_Trio_array_data_sim shared memory file not found",
     "Cannot open shared memory file /dev/shm/varkel_Trio_array_data_sim for array data."},
    {"/dev/shm/varkel_Quad_array_data", "/varkel_Quad_array_data",
     "/dev/shm/varkel_Quad_array_data shared memory file not found",
     "Cannot open shared memory file /dev/shm/varkel_Quad_array_data shared memory for array data."},
    {"/dev/shm/varkel_Quad_array_data_sim", "/varkel_Quad_array_data_sim",
     "/dev/shm/varkel_Quad_array_data_sim shared memory file not found",
     "Cannot open shared memory file /dev/shm/varkel_Quad_array_data_sim shared memory for array data."},
}};

} // namespace

simpleArgs simple_request(requestTypesEnum type)
{
  simpleArgs request{};
  request.type = type;
  return request;
}

bool geometry_request(std::string_view path, geometryArgs& out)
{
  geometryArgs request{};
  if (path.size() >= sizeof request.jsonfile)
    return false;
  request.type = GEOMETRY;
  path.copy(request.jsonfile, path.size());
  out = request;
  return true;
}

const char* backend_error_text(uint8_t ret)
{
  switch (ret) {
  case INVALID_SAVE_PATH:
    return "Unable to create file";
  case INVALID_AQUISITION_MODE:
    return "Invalid acquisition mode";
  case INVALID_NUM_OF_ACQUISITIONS:
    return "Invalid number of acquisitions";
  default:
    return "Unknown error code";
  }
}

const char* geometry_error_text(uint8_t ret)
{
  switch (ret) {
  case INVALID_GEOMETRY_FILE:
    return "Invalid geometry file";
  case INVALID_AQUISITION_MODE:
    return "Invalid acquisition mode";
  default:
    return "Invalid number of acquisition";
  }
}

const char* save_status_text(uint8_t done)
{
  switch (done) {
  case DONE:
    return "DONE";
  case NOT_DONE:
    return "NOT DONE";
  default:
    return "ERROR";
  }
}

std::string format_gid(const uint8_t* gid, const char* id)
{
  std::string out = id;
  out += '=';
  for (int i = 0; i < 16; ++i)
    append_format(out, "%x", static_cast<unsigned>(gid[i]));
  out += '\n';
  return out;
}

std::string format_init_args(const initArgs& args)
{
  std::string out = "\n-----------------------\n   Received init args\n-----------------------\n";
  for (int m = 0; m < 4; ++m)
    append_format(out, "be %d qpn=%" PRIx32 "\n", m + 1, args.qpn[m]);
  for (int m = 0; m < 4; ++m)
    append_format(out, "fe %d mac=%" PRIx64 "\n", m + 1, args.fe_mac[m]);
  for (int m = 0; m < 4; ++m)
    append_format(out, "be %d mac=%" PRIx64 "\n", m + 1, args.be_mac[m]);
  char label[32];
  for (int m = 0; m < 4; ++m) {
    std::snprintf(label, sizeof label, "Module %d FE gid=", m + 1);
    out += format_gid(args.fe_gid[m], label);
  }
  for (int m = 0; m < 4; ++m) {
    std::snprintf(label, sizeof label, "Module %d BE gid=", m + 1);
    out += format_gid(args.be_gid[m], label);
  }
  for (int m = 0; m < 4; ++m)
    append_format(out, "be %d vaddr=%" PRIx64 "\n", m + 1, args.vaddr[m]);
  for (int m = 0; m < 4; ++m)
    append_format(out, "be %d rkey=%" PRIx32 "\n", m + 1, args.rkey[m]);
  return out;
}

std::string format_save_status(const saveStatusArgs& status)
{
  std::string out = "Received SAVE_STATUS:\n            status=";
  out += save_status_text(status.done);
  append_format(out, "\n            Saved Frames=%" PRIu64 "\n", status.savedFrameNum);
  append_format(out, "            savedAquisitionNum=%" PRIu64 "\n", status.savedAquisitionNum);
  return out;
}

const FrameSegment* frame_segment(varkel_detector_model_t model, int simulate)
{
  const std::size_t sim = simulate == 1 ? 1 : 0;
  switch (model) {
  case varkelTrio:
    return &kSegments[sim];
  case varkelQuad:
    return &kSegments[2 + sim];
  default:
    return nullptr;
  }
}

} // namespace varkel::detail

void decode_backend_error(uint8_t ret, char* error)
{
  assert(error != NULL);
  std::strcpy(error, varkel::detail::backend_error_text(ret));
}

uint8_t decode_backend_medipixMode(uint8_t aquisitionMode)
{
  return varkel::detail::acquisition_mode_for(aquisitionMode);
}
