// scan: the controller steps one DAC of each chip and keeps the code nearest the
// DAC's aim, through the library's scan of one chip.
#include <memory>
#include <strings.h>

#include "commands.hpp"
#include "common/text.hpp"
#include "workflow.h"

namespace varkel::cli {

using tools::format;

namespace {

struct Request {
  std::string dac;
  int from = 0, to = 255, step = 4;
  Address at;
};

struct ScanDac {
  std::string name; // as the settings table names it, without "dac."
  varkel_dac_t dac;
};

// The DACs the library can scan toward an aim. The settings table's dac.* rows
// follow the DAC numbers, which gives each its name.
std::vector<ScanDac> scan_dacs()
{
  std::vector<ScanDac> dacs;
  int number = DAC_ThresholdEnergy0;
  for (int i = 0; i < varkel_settings_count(); ++i) {
    const std::string name = varkel_setting_at(i)->name;
    if (name.rfind("dac.", 0) != 0)
      continue;
    const auto dac = static_cast<varkel_dac_t>(number++);
    if (varkel_scan_aim(dac) > 0)
      dacs.push_back({name.substr(4), dac});
  }
  return dacs;
}

std::string scan_dac_names()
{
  std::string names;
  for (const ScanDac& s : scan_dacs())
    names += format("%s%s (aim %g V)", names.empty() ? "" : ", ", s.name.c_str(), varkel_scan_aim(s.dac));
  return names;
}

std::optional<ScanDac> find_scan_dac(std::string name)
{
  if (name.rfind("dac.", 0) == 0)
    name.erase(0, 4);
  for (const ScanDac& s : scan_dacs())
    if (strcasecmp(s.name.c_str(), name.c_str()) == 0)
      return s;
  return std::nullopt;
}

// One chip's scan, as JSON and a line; false when it failed (reported).
bool scan_chip(Detector& d, Output& out, const Request& r, const ScanDac& dac, int m, int c, json_object* list)
{
  int code = 0;
  double volts = 0;
  const std::string what = "scan of " + dac.name;
  if (d.switched_off(out, m, c, what) || !d.run(out, m, c, what, [&] {
        return varkel_scan_chip(d.handle(), m, c, dac.dac, r.from, r.to, r.step, &code, &volts);
      }))
    return false;
  json_object* o = json_place(m, c);
  json_object_object_add(o, "code", json_object_new_int(code));
  json_object_object_add(o, "volts", json_number(volts, format("%.4f", volts).c_str()));
  json_object_array_add(list, o);
  out.text("  module %d chip %-2d  code %3d  %.4f V\n", m, c, code, volts);
  return true;
}

void run_scan(Detector& d, Output& out, const Request& r)
{
  const auto dac = find_scan_dac(r.dac);
  if (!dac)
    return out.refuse("scan: no aim for DAC '" + r.dac + "'; scans go toward the aims of " + scan_dac_names());
  if (r.step == 0 || !validate_dac_scan((r.to - r.from) / r.step))
    return out.refuse(format("scan: codes %d to %d in steps of %d: a scan takes 1 to 69 steps", r.from, r.to, r.step));
  if (!d.check(r.at, out) || !d.open(Reach::modules, false, out))
    return;
  const double aim = varkel_scan_aim(dac->dac);
  out.set("dac", json_text(dac->name));
  out.set("aim", json_number(aim, format("%g", aim).c_str()));
  json_object* list = json_object_new_array();
  out.set("chips", list);
  out.text("%s toward %g V over codes %d to %d in steps of %d:\n", dac->name.c_str(), aim, r.from, r.to, r.step);
  std::vector<LeftOut> left_out;
  for (int m : d.modules_of(r.at))
    for (int c : d.chips_of(m, r.at, &left_out))
      if (!scan_chip(d, out, r, *dac, m, c, list))
        break; // the module's other chips would fail alike, each after a time-out
  report_left_out(out, left_out);
}

} // namespace

void setup_scan(Commands& c)
{
  auto r = std::make_shared<Request>();
  CLI::App* cmd = c.add("scan", "DAC scan by the controller; the code nearest the aim is written");
  cmd->add_option("DAC", r->dac, scan_dac_names())->required();
  cmd->add_option("--from", r->from, "first code")->capture_default_str()->check(CLI::Range(0, 255));
  cmd->add_option("--to", r->to, "last code")->capture_default_str()->check(CLI::Range(0, 255));
  cmd->add_option("--step", r->step, "code step (at most 69 steps)")->capture_default_str();
  address_options(cmd, r->at, "chip number 1..36 (default: every working chip)");
  c.on(cmd, [r](Detector& d, Output& out) { run_scan(d, out, *r); });
}

} // namespace varkel::cli
