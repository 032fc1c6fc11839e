// init, temps and chips: bringing the detector up and looking at it.
#include <algorithm>

#include "commands.hpp"
#include "common/text.hpp"

namespace varkel::cli {

using tools::format;

namespace {

json_object* json_reading(float value) { return json_number(value, format("%.2f", double{value}).c_str()); }

void run_init(Detector& d, Output& out)
{
  if (!d.open(Reach::everything, false, out))
    return;
  const varkel_t* v = d.handle();
  out.set("modules", json_object_new_int(v->max_num_modules));
  out.set("buffer_frames", json_object_new_int64(v->init_args.bufferSize));
  out.text("data server: RDMA parameters for %d module(s), buffer of %u frames\n", v->max_num_modules,
           v->init_args.bufferSize);
  out.text("%d module(s) connected, transport parameters sent\n", v->max_num_modules);
}

// Module m's 16 sensors per board as JSON arrays, min-max per board as text.
json_object* board_temperatures(Output& out, const varkel_t* v, int m)
{
  json_object* boards = json_object_new_array();
  out.text("  boards  ");
  for (int b = 0; b < v->max_num_boards; ++b) {
    const float* sensors = v->varkelParam.mfb_temperature[m - 1] + b * 16;
    json_object* s = json_object_new_array();
    for (int i = 0; i < 16; ++i)
      json_object_array_add(s, json_reading(sensors[i]));
    json_object_array_add(boards, s);
    const auto [lo, hi] = std::minmax_element(sensors, sensors + 16);
    out.text("%d: %.2f-%.2f  ", b, double{*lo}, double{*hi});
  }
  out.text("(16 sensors each, min-max)\n");
  return boards;
}

// Module m's chips by the library's walk over chip numbers 1..n, twelve to a
// line. The walk asks the switched-off chips too, which a controller may refuse:
// as many refusals as the walk has chips switched off are theirs, and those chips
// are listed as left out; any more is a failure.
json_object* chip_temperatures(Detector& d, Output& out, int m, std::vector<LeftOut>& left_out)
{
  varkel_t* v = d.handle();
  const int n = std::min<int>(v->num_all_chips, 36);
  std::vector<LeftOut> off;
  d.chips_of(m, {}, &off);
  std::erase_if(off, [n](const LeftOut& l) { return l.chip > n; });
  const uint64_t before = varkel_failure_count(v);
  const int rc = getChip_Temperature(v, m);
  if (rc != 0 || varkel_failure_count(v) - before > off.size())
    d.verdict(out, m, 0, "chip temperatures", rc, before);
  left_out.insert(left_out.end(), off.begin(), off.end());
  const float* t = v->varkelParam.allchip_temperature[m - 1];
  json_object* chips = json_object_new_array();
  for (int c = 1; c <= n; ++c) {
    json_object_array_add(chips, json_reading(t[c - 1]));
    if ((c - 1) % 12 == 0)
      out.text("  %s %2d-%-2d ", c == 1 ? "chips " : "      ", c, std::min(c + 11, n));
    out.text(" %5.1f%s", double{t[c - 1]}, c % 12 == 0 || c == n ? "\n" : "");
  }
  return chips;
}

void run_temps(Detector& d, Output& out)
{
  if (!d.open(Reach::modules, false, out))
    return;
  varkel_t* v = d.handle();
  json_object* list = json_object_new_array();
  out.set("modules", list);
  std::vector<LeftOut> left_out;
  for (int m = 1; m <= v->max_num_modules; ++m) {
    // The average first: a module that cannot give it is not asked for 84 more.
    if (!d.run(out, m, 0, "chip average temperature", [&] { return select_module(v, m) | US_TemperatureChipAvg(v); }))
      continue;
    d.run(out, m, 0, "board temperatures", [&] { return getMFB_Temperature(v, m); });
    json_object* o = json_place(m, 0);
    json_object_object_add(o, "average", json_reading(v->varkelParam.avg_chip_temperature[m - 1]));
    out.text("module %d   chip average %.2f\n", m, double{v->varkelParam.avg_chip_temperature[m - 1]});
    json_object_object_add(o, "boards", board_temperatures(out, v, m));
    json_object_object_add(o, "chips", chip_temperatures(d, out, m, left_out));
    json_object_array_add(list, o);
  }
  report_left_out(out, left_out);
}

// The presence check ran when the detector was opened; this shows what it found.
void run_chips(Detector& d, Output& out)
{
  if (!d.open(Reach::modules, false, out))
    return;
  json_object* list = json_object_new_array();
  out.set("modules", list);
  for (int m = 1; m <= d.modules(); ++m) {
    std::vector<LeftOut> off_chips;
    const int answering = static_cast<int>(d.chips_of(m, {}, &off_chips).size());
    json_object* off = json_object_new_array();
    std::string named;
    for (const LeftOut& l : off_chips) {
      json_object_array_add(off, json_object_new_int(l.chip));
      named += format("%s%d", named.empty() ? "" : ", ", l.chip);
    }
    json_object* o = json_place(m, 0);
    json_object_object_add(o, "answering", json_object_new_int(answering));
    json_object_object_add(o, "disabled", off);
    json_object_array_add(list, o);
    out.text("module %d: %d chip(s) answer%s%s\n", m, answering,
             named.empty() ? "" : "; switched off: ", named.c_str());
  }
}

} // namespace

void setup_init(Commands& c)
{
  c.on(c.add("init", "connect the data server and bring up every module's transport"), run_init);
}

void setup_temps(Commands& c) { c.on(c.add("temps", "board and chip temperatures, a table per module"), run_temps); }

void setup_chips(Commands& c)
{
  c.on(c.add("chips", "presence check: chips that do not answer are switched off"), run_chips);
}

} // namespace varkel::cli
