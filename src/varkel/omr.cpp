// The OMR register of the chips: the generic register command with its fan-out,
// the read of every field, and the per-field set/read-back family. All on the
// main channel.
#include <cassert>
#include <cstdio>
#include <iterator>
#include <type_traits>

#include "internal/omr_parse.hpp"
#include "internal/pair_list.hpp"
#include "internal/query.hpp"
#include "varkel.h"

using namespace varkel::detail;

namespace {

constexpr varkel_thread_t kMain = VARKEL_THREAD_MAIN;

// ---- the generic register command ------------------------------------------

bool any_value(int) { return true; }

// What set_omr may write in each field, by field number; null: not writable.
constexpr bool (*kWritable[kOmrFields])(int) = {
    validate_operation_mode, // OMR_M
    validate_crw_srw,        // OMR_CRW_SRW
    validate_polarity,       // OMR_Polarity
    nullptr,                 // OMR_PS
    validate_discriminator,  // OMR_Disc_CSM_SPM
    validate_bool,           // OMR_EnableTP
    validate_counter_depth,  // OMR_CountL
    nullptr,                 // OMR_CollumBLock
    nullptr,                 // OMR_CollumBLock_Sel
    nullptr,                 // OMR_RowBlock
    nullptr,                 // OMR_RowBlock_Sel
    validate_bool,           // OMR_Equalization
    nullptr,                 // OMR_Colour_Mode
    validate_pixel_mode,     // OMR_CSM_SPM
    nullptr,                 // OMR_Info_Header
    nullptr,                 // OMR_Fuse_Sel
    nullptr,                 // OMR_Fuse_Pulse_Width
    validate_gain_mode,      // OMR_Gain_Mode
    validate_u5_int,         // OMR_Sense_DAC
    nullptr,                 // OMR_Ext_DAC
    any_value,               // OMR_Ext_BG_Sel
};
static_assert(std::size(kWritable) == OMR_ENUM_END);

// ---- the field operations --------------------------------------------------

// Stores a replied number in one member of the cached record. The member's type
// is the conversion: enumerations as replied, booleans as non-zero, the 8-bit
// sense selection as its low 8 bits.
using Cache = void (*)(varkel_omr&, int);
template <auto Member> void cache(varkel_omr& omr, int x)
{
  using T = std::remove_reference_t<decltype(omr.*Member)>;
  omr.*Member = static_cast<T>(x);
}

struct OmrField {
  varkel_omr_t number;
  bool (*check)(int);
  const char* set_reply; // format of the setter's reply; null: not read
  Cache cached;
};

// The family: one row per field, read by set_field and read_field. Read-backs
// reply a plain number.
constexpr OmrField kFields[] = {
    {OMR_M, validate_operation_mode, "%d", cache<&varkel_omr::operation_mode>},
    {OMR_CRW_SRW, validate_crw_srw, "%d", cache<&varkel_omr::crw_srw_mode>},
    {OMR_Polarity, validate_polarity, "Polarity set for: %d", cache<&varkel_omr::polarity>},
    {OMR_PS, validate_data_out, "%d", cache<&varkel_omr::dataout>},
    {OMR_Disc_CSM_SPM, validate_discriminator, "%d", cache<&varkel_omr::discriminator>},
    {OMR_EnableTP, validate_bool, "%d", cache<&varkel_omr::enable_testPulse>},
    {OMR_CountL, validate_counter_depth, "%d", cache<&varkel_omr::counterDepth_mode>},
    {OMR_Equalization, validate_bool, "%d", cache<&varkel_omr::equalization>},
    {OMR_Colour_Mode, validate_colour_mode, "%d", cache<&varkel_omr::colour_mode>},
    {OMR_CSM_SPM, validate_pixel_mode, "%d", cache<&varkel_omr::pixel_mode>},
    {OMR_Gain_Mode, validate_gain_mode, "%d", cache<&varkel_omr::gain_mode>},
    {OMR_Sense_DAC, validate_u5_int, nullptr, cache<&varkel_omr::sense_dacSel>},
};

constexpr const OmrField* find(varkel_omr_t number)
{
  for (const OmrField& f : kFields)
    if (f.number == number)
      return &f;
  return nullptr;
}

constexpr const OmrField& row(varkel_omr_t number)
{
  const OmrField* f = find(number);
  assert(f != nullptr && "an OMR field of the family");
  return f != nullptr ? *f : kFields[0];
}

// The setter shape: check, "HS_Set_OMR <field> <value>", cache the replied number.
int set_field(varkel_t* v, varkel_omr_t number, int value)
{
  assert(v != NULL);
  const OmrField& f = row(number);
  if (!f.check(value))
    return -3;
  const auto field = static_cast<unsigned>(number);
  if (f.set_reply == nullptr)
    return query_status(v, kMain, CMD_SET_OMR, field, static_cast<unsigned>(value));
  return query_scan<int>(
      v, kMain, f.set_reply, [&](int x) { f.cached(v->omr, x); }, CMD_SET_OMR, field, static_cast<unsigned>(value));
}

int read_field(varkel_t* v, varkel_omr_t number)
{
  int value = 0;
  return read_omr_field(v, kMain, number, &value);
}

} // namespace

// The read-back shape: "HS_Get_OMR <field>"; on the main channel the replied
// number is also cached, for the fields of the family.
int varkel::detail::read_omr_field(varkel_t* v, varkel_thread_t owner, varkel_omr_t number, int* value)
{
  assert(v != NULL);
  return query_scan<int>(
      v, owner, "%d",
      [&](int x) {
        *value = x;
        if (const OmrField* f = find(number); f != nullptr && owner == kMain)
          f->cached(v->omr, x);
      },
      CMD_GET_OMR, static_cast<unsigned>(number));
}

int varkel::detail::write_omr_field(varkel_t* v, varkel_omr_t number, int value)
{
  return find(number) != nullptr ? set_field(v, number, value)
                                 : set_omr(v, number, value, VARKEL_SEND_ONE_CHIP_ONE_MODULE);
}

int validate_omr(int omr, int v)
{
  if (!validate_omr_field(omr))
    return -11;
  printf("OMR: %d -> Value: %d\n", omr, v);
  if (kWritable[omr] == nullptr) {
    printf("OMR-field not accessible\n");
    return -11;
  }
  return kWritable[omr](v) ? 0 : -12;
}

int US_ImgChipOMR(varkel_t* varkel, varkel_omr_operation_t op, varkel_omr_t omr, int value)
{
  assert(varkel != NULL);
  return query_status(varkel, kMain, CMD_IMGCHIP_OMR, static_cast<unsigned>(op), static_cast<unsigned>(omr),
                      static_cast<unsigned>(value));
}

int set_omr(varkel_t* varkel, varkel_omr_t omr, int value, varkel_send_to_all_t send_to)
{
  assert(varkel != NULL);
  if (int rc = validate_omr(omr, value); rc != 0)
    return rc;
  const bool all_chips = send_to == VARKEL_SEND_ALL_CHIPS_ONE_MODULE || send_to == VARKEL_SEND_ALL_CHIPS_ALL_MODULES;
  const varkel_omr_operation_t op = all_chips ? OMR_OP_WRITE_ALLSENSORS : OMR_OP_WRITE;
  switch (send_to) {
  case VARKEL_SEND_ONE_CHIP_ONE_MODULE:
  case VARKEL_SEND_ALL_CHIPS_ONE_MODULE:
    return US_ImgChipOMR(varkel, op, omr, value);
  case VARKEL_SEND_ONE_CHIP_ALL_MODULES:
  case VARKEL_SEND_ALL_CHIPS_ALL_MODULES: {
    // Each module's result replaces the one before: the last module's counts.
    int last = 0;
    for_each_module_selected(
        varkel,
        [&](int) {
          last = US_ImgChipOMR(varkel, op, omr, value);
          return 0;
        },
        Selection::ignored);
    return last;
  }
  default: // the board-level targets have no register write
    return 0;
  }
}

int update_counterDepth_index(int value)
{
  switch (value) {
  case 12:
    return VARKEL_COUNTERDEPTH_12BITS;
  case 24:
    return VARKEL_COUNTERDEPTH_24BITS;
  default:
    return -1;
  }
}

void varkel::detail::store_omr_pairs(const char* text, int32_t (&values)[kOmrFields])
{
  walk_pairs<int>(text, [&](int field, int value) {
    if (field >= 0 && field < kOmrFields) // a field number from the wire indexes nothing else
      values[field] = field == OMR_CountL ? update_counterDepth_index(value) : value;
  });
}

int varkel::detail::read_omr_fields(varkel_t* v, varkel_thread_t owner, int32_t (&values)[kOmrFields])
{
  assert(v != NULL);
  char reply[kReplySize];
  if (int rc = query_and_cache(v, owner, reply, CMD_IMGCHIP_OMR, static_cast<unsigned>(OMR_OP_READ_ALL_OMRS_ONESENSOR),
                               0u, 0u);
      rc != 0)
    return rc;
  store_omr_pairs(reply, values);
  return 0;
}

int get_omr(varkel_t* varkel) { return read_omr_fields(varkel, kMain, varkel->omr_values); }

// clang-format off
int US_OmrOMSelec(varkel_t* varkel, varkel_operation_mode_t operation_mode) { return set_field(varkel, OMR_M, operation_mode); }
int US_OmrOMSelec_RBV(varkel_t* varkel) { return read_field(varkel, OMR_M); }
int US_ContinuousRW(varkel_t* varkel, varkel_crw_srw_t crw_srw_mode) { return set_field(varkel, OMR_CRW_SRW, crw_srw_mode); }
int US_ContinuousRW_RBV(varkel_t* varkel) { return read_field(varkel, OMR_CRW_SRW); }
int US_Polarity(varkel_t* varkel, varkel_polarity_t polarity) { return set_field(varkel, OMR_Polarity, polarity); }
int US_Polarity_RBV(varkel_t* varkel) { return read_field(varkel, OMR_Polarity); }
int US_OmrPSSelec(varkel_t* varkel, varkel_dataout_t dataout) { return set_field(varkel, OMR_PS, dataout); }
int US_OmrPSSelec_RBV(varkel_t* varkel) { return read_field(varkel, OMR_PS); }
int US_Discriminator(varkel_t* varkel, varkel_discriminator_t discriminator) { return set_field(varkel, OMR_Disc_CSM_SPM, discriminator); }
int US_Discriminator_RBV(varkel_t* varkel) { return read_field(varkel, OMR_Disc_CSM_SPM); }
int US_TestPulse(varkel_t* varkel, bool test_pulse) { return set_field(varkel, OMR_EnableTP, test_pulse); }
int US_TestPulse_RBV(varkel_t* varkel) { return read_field(varkel, OMR_EnableTP); }
int US_CounterDepth(varkel_t* varkel, varkel_counterDepth_t mode) { return set_field(varkel, OMR_CountL, mode); }
int US_CounterDepth_RBV(varkel_t* varkel) { return read_field(varkel, OMR_CountL); }
int US_Equalization(varkel_t* varkel, bool equalization) { return set_field(varkel, OMR_Equalization, equalization); }
int US_Equalization_RBV(varkel_t* varkel) { return read_field(varkel, OMR_Equalization); }
int US_SpectroscopicMode(varkel_t* varkel, varkel_spectroscopic_mode_t colour_mode) { return set_field(varkel, OMR_Colour_Mode, colour_mode); }
int US_SpectroscopicMode_RBV(varkel_t* varkel) { return read_field(varkel, OMR_Colour_Mode); }
int US_PixelMode(varkel_t* varkel, varkel_pixel_mode_t mode) { return set_field(varkel, OMR_CSM_SPM, mode); }
int US_PixelMode_RBV(varkel_t* varkel) { return read_field(varkel, OMR_CSM_SPM); }
int US_Gain(varkel_t* varkel, varkel_gain_mode_t gain_mode) { return set_field(varkel, OMR_Gain_Mode, gain_mode); }
int US_Gain_RBV(varkel_t* varkel) { return read_field(varkel, OMR_Gain_Mode); }
int US_SenseDacSel(varkel_t* varkel, uint8_t dac) { return set_field(varkel, OMR_Sense_DAC, dac); }
int US_SenseDacSel_RBV(varkel_t* varkel) { return read_field(varkel, OMR_Sense_DAC); }
// clang-format on
