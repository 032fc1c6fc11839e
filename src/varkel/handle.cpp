#include <array>
#include <cassert>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>

#include "ethernet.h"
#include "internal/backend.hpp"
#include "internal/descriptor.hpp"
#include "internal/handle.hpp"
#include "internal/trace.hpp"
#include "refusal.h"
#include "snapshot.h"
#include "varkel.h"

namespace {

using varkel::detail::HandleExtras;
using varkel::detail::ModelGeometry;

constexpr std::array<ModelGeometry, 4> kModels{{
    {1, 1, 1, "Detector Selected: Kinlet", "kinlet"},
    {1, 1, 12, "Detector Selected: VarkelLite", "lite"},
    {1, 3, 12, "Detector Selected: VarkelTrio", "trio"},
    {4, 3, 12, "Detector Selected: VarkelQuad", "quad"},
}};

// The handle and its private extras in one allocation: the public record first,
// so that a varkel_t* of it is a pointer to the block.
struct HandleBlock {
  varkel_t handle;
  HandleExtras extras;
};
static_assert(std::is_standard_layout_v<HandleBlock> && offsetof(HandleBlock, handle) == 0);

constexpr std::array<const char*, 14> kErrorArray{
    "Success",
    "Address not found",
    "Read message error",
    "Command failed",
    "Invalid dac field",
    "Dac value out of range",
    "Data server disconnected",
    "Invalid module number",
    "Data server parse error",
    "Requested bit rate is above 200 Mbps",
    "Total number of images is above 16.383",
    "Invalid omr field",
    "Omr Parameter out of range",
    "Invalid error number",
};
static_assert(kErrorArray.size() == 14, "one message for each code 0 to -13");

// The snapshot calls' codes lie apart from the table, from -101 down.
constexpr std::array<const char*, 5> kSnapshotErrors{
    "Snapshot file missing or malformed", "Snapshot format version not supported",
    "Snapshot of another detector model", "Snapshot value out of range or unknown",
    "Snapshot value did not verify",
};
static_assert(VARKEL_SNAPSHOT_BAD_FILE == -101 &&
              VARKEL_SNAPSHOT_UNVERIFIED == VARKEL_SNAPSHOT_BAD_FILE - int{kSnapshotErrors.size()} + 1);

// Our layers' codes follow them (refusal.h).
constexpr std::array<const char*, 4> kLayerErrors{
    "The controller refused the command",
    "The controller did not apply the value",
    "An acquisition is running",
    "The chip is switched off",
};
static_assert(VARKEL_REFUSED == VARKEL_SNAPSHOT_UNVERIFIED - 1 &&
              VARKEL_CHIP_OFF == VARKEL_REFUSED - int{kLayerErrors.size()} + 1);

constexpr bool in_range(int value, int low, int high) { return value >= low && value <= high; }
bool in_range(float value, float low, float high) { return std::isfinite(value) && value >= low && value <= high; }

} // namespace

varkel_t* varkel_new(varkel_detector_model_t detModel)
{
  void* memory = std::calloc(1, sizeof(HandleBlock));
  if (memory == NULL)
    return NULL;
  varkel_t* varkel = &(new (memory) HandleBlock{})->handle;
  varkel->varkel_interface = -1;
  varkel->backend_socket = -1;
  pthread_mutex_init(&varkel->backend_socket_mutex, NULL);

  printf("detModel: %d\n", detModel);
  if (detModel >= 0 && static_cast<std::size_t>(detModel) < kModels.size()) {
    const ModelGeometry& g = kModels[static_cast<std::size_t>(detModel)];
    varkel->max_num_modules = g.modules;
    varkel->max_num_boards = g.boards;
    varkel->max_num_chips = g.chips;
    printf("%s\n", g.message);
  } else {
    printf("No detector selected\n");
  }

  varkel->frame_size =
      static_cast<uint32_t>(varkel->max_num_chips) * 65536u * varkel->max_num_boards * varkel->max_num_modules;
  if (varkel->frame_size > 0) {
    varkel->sample_frame = static_cast<int32_t*>(std::calloc(varkel->frame_size, sizeof(int32_t)));
    if (varkel->sample_frame == NULL) {
      // The handle stays usable for everything but the frame copy.
      fprintf(stderr, "varkel_new: cannot allocate the %u-pixel sample frame\n", varkel->frame_size);
      varkel->frame_size = 0;
    }
  }
  varkel->num_all_chips = static_cast<uint8_t>(varkel->max_num_chips * varkel->max_num_boards);
  varkel->num_mfb_tsensors = static_cast<uint8_t>(varkel->max_num_boards * 16);
  varkel->detModel = detModel;
  return varkel;
}

void varkel_delete(varkel_t* varkel)
{
  assert(varkel != NULL);
  varkel::detail::release_backend(varkel);
  varkel::detail::release_main_channel(varkel);
  for (int& fd : varkel->fd)
    varkel::detail::release_descriptor(fd, 0);

  varkel::detail::close_trace_file(varkel->debug_out);
  std::free(varkel->sample_frame);
  pthread_mutex_destroy(&varkel->backend_socket_mutex);
  auto* block = reinterpret_cast<HandleBlock*>(varkel);
  block->~HandleBlock();
  std::free(block);
}

HandleExtras& varkel::detail::extras(varkel_t* v) { return reinterpret_cast<HandleBlock*>(v)->extras; }

const ModelGeometry* varkel::detail::model_geometry(int model)
{
  return model >= 0 && static_cast<std::size_t>(model) < kModels.size() ? &kModels[static_cast<std::size_t>(model)]
                                                                        : nullptr;
}

const char* varkel_error_string(int error)
{
  if (error > 0)
    return strerror(error);
  // Negate in 64 bits: INT_MIN has no 32-bit negation.
  const long long index = -static_cast<long long>(error);
  const long long snapshot = index + VARKEL_SNAPSHOT_BAD_FILE;
  if (snapshot >= 0 && snapshot < static_cast<long long>(kSnapshotErrors.size()))
    return kSnapshotErrors[static_cast<std::size_t>(snapshot)];
  const long long layer = index + VARKEL_REFUSED;
  if (layer >= 0 && layer < static_cast<long long>(kLayerErrors.size()))
    return kLayerErrors[static_cast<std::size_t>(layer)];
  return kErrorArray[index > 13 ? 13 : static_cast<std::size_t>(index)];
}

uint32_t decode_sensor_number(uint8_t sensor, uint8_t mfb)
{
  return static_cast<uint32_t>((2 - mfb) * 12 + sensor + 1);
}

bool validate_bool(int value) { return in_range(value, 0, 1); }
bool validate_u5_int(int value) { return in_range(value, 0, 31); }
bool validate_u8_int(int value) { return in_range(value, 0, 255); }
bool validate_u9_int(int value) { return in_range(value, 0, 511); }
bool validate_u12_int(int value) { return in_range(value, 0, 4095); }
bool validate_operation_mode(int value) { return in_range(value, 0, 7); }
bool validate_crw_srw(int value) { return in_range(value, 0, 1); }
bool validate_polarity(int value) { return in_range(value, 0, 1); }
bool validate_data_out(int value) { return in_range(value, 0, 3); }
bool validate_discriminator(int value) { return in_range(value, 0, 1); }
bool validate_counter_depth(int value) { return in_range(value, 0, 3); }
bool validate_colour_mode(int value) { return in_range(value, 0, 1); }
bool validate_pixel_mode(int value) { return in_range(value, 0, 1); }
bool validate_gain_mode(int value)
{
  printf("inside gain mode validate-> Value: %d\n", value);
  return in_range(value, 0, 3);
}
int validate_omr_field(int value) { return in_range(value, 0, 20) ? 1 : 0; }
bool validate_dac_scan(int value) { return in_range(value, 1, 69); }
bool validate_dac(int value) { return in_range(value, 1, 31); }
bool validate_number_chip_module(int value) { return in_range(value, 1, 36); }
bool validate_chip_with_zero(int value) { return in_range(value, 0, 36); }
bool validate_number_chip_mfb(varkel_t* varkel, int value) { return in_range(value, 0, varkel->max_num_chips); }
bool validate_number_boards(varkel_t* varkel, int value) { return in_range(value, 0, varkel->max_num_boards - 1); }
bool validate_module(varkel_t* varkel, int value) { return in_range(value, 1, varkel->max_num_modules); }
bool validate_read_counter(int value) { return in_range(value, 0, 1); }
bool validate_temperature(float value) { return in_range(value, 20.0f, 120.0f); }
bool validate_bias_voltage(float value) { return in_range(value, 0.0f, 100.0f); }
bool validate_image_mode(int value) { return in_range(value, 0, 3); }
bool validate_medipix_mode(int value) { return in_range(value, 0, 3); }
bool validate_trigger_out(int value) { return in_range(value, 0, 11); }
bool validate_trigger_mode(int value) { return in_range(value, 0, 2); }
bool validate_acquire_period(float value)
{
  // The bound is the float nearest 0.02, so that a period of 0.02 s passed as
  // float is accepted; the comparison itself is in double precision.
  const double period = value;
  return period == 0.0 || period >= static_cast<double>(0.02f);
}
bool validate_column(int value) { return in_range(value, 0, 7); }
bool validate_row_count(int value) { return in_range(value, 0, 7); }
bool validate_extBg(float value) { return in_range(value, 0.0f, 1.0f); }
