// init, acquire, temps, chips and scan: the detector's own operations.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

#include "commands.hpp"
#include "common/picture.hpp"
#include "common/text.hpp"

namespace varkel::cli {

using tools::format;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

namespace {

double seconds_since(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

json_object* json_reading(float value) { return json_number(value, format("%.2f", double{value}).c_str()); }

bool has_frame(varkel_detector_model_t model) { return model == varkelTrio || model == varkelQuad; }

} // namespace

void init(Detector& d, Output& out)
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

// ---- acquire ----

namespace {

// Frames the data server has counted, per module; false when it cannot say.
bool frames_counted(varkel_t* v, std::vector<uint64_t>& frames)
{
  if (get_acqStatus_fromBackend(v) != 0)
    return false;
  frames.assign(v->acq_status_return.noOfFrames, v->acq_status_return.noOfFrames + v->max_num_modules);
  return true;
}

// Exposures module 1 has taken since `before`, by its counter.
uint32_t exposures_taken(varkel_t* v, uint32_t before, int& rc)
{
  rc = US_NumExposuresCounter_RBV(v);
  return v->acquireParam.numExposuresTotal - before;
}

uint64_t total(const std::vector<uint64_t>& frames)
{
  uint64_t n = 0;
  for (uint64_t f : frames)
    n += f;
  return n;
}

void write_picture(Detector& d, Output& out, const std::string& path)
{
  varkel_t* v = d.handle();
  if (const int rc = get_array_data(v); rc != 0) {
    out.fail(0, 0, rc, "cannot copy the sample frame");
    return;
  }
  const auto face = tools::place_on_face(v, v->sample_frame);
  const tools::Picture picture = face ? tools::shade(*face, 4) : tools::Picture{};
  if (!face || !tools::write_png(path, picture)) {
    out.fail(0, 0, "cannot write " + path);
    return;
  }
  json_object* png = json_object_new_object();
  json_object_object_add(png, "file", json_text(path));
  json_object_object_add(png, "width", json_object_new_int(picture.width));
  json_object_object_add(png, "height", json_object_new_int(picture.height));
  out.set("png", png);
  out.text("sample frame -> %s (%d x %d)\n", path.c_str(), picture.width, picture.height);
}

} // namespace

void acquire(Detector& d, Output& out, const AcquireRequest& r)
{
  if (!(r.exposure > 0) || !(r.period >= 0) || r.exposures < 1) {
    out.refuse("acquire needs --exposure > 0, --period >= 0 and --exposures >= 1");
    return;
  }
  if (!r.png.empty() && !has_frame(d.model())) {
    out.refuse("--png: this model publishes no sample frame");
    return;
  }
  if (!d.open(Reach::everything, has_frame(d.model()), out))
    return;
  varkel_t* v = d.handle();
  const auto step = [&](int rc, const char* what) {
    if (rc != 0)
      out.fail(0, 0, rc, what);
    return rc == 0;
  };
  // Module 1 leads and the others start on its shutter output, so that every
  // module takes the same exposures.
  if (!step(set_acquireTime(v, static_cast<float>(r.exposure)), "setting the exposure time") ||
      !step(set_periodTime(v, static_cast<float>(r.period)), "setting the period") ||
      !step(set_numberExposures(v, r.exposures), "setting the number of exposures") ||
      (v->max_num_modules > 1 &&
       !step(define_master_module(v, 1, false, VARKEL_TRIGGER_MODE_EXTERNAL_POS_EDGE), "arranging the triggers")) ||
      !step(has_frame(d.model()) ? prepare_varkel(v) : prepare_backend(v), "preparing the data server") ||
      !step(select_module(v, 1) | US_NumExposuresCounter_RBV(v), "reading the exposure counter"))
    return;
  const uint32_t before = v->acquireParam.numExposuresTotal;
  if (!step(execute_acquire(v), "starting the acquisition"))
    return;

  const auto t0 = Clock::now();
  const double expected = r.exposures * std::max(r.exposure, r.period);
  const double limit = expected * 2 + 10; // then the acquisition is stopped and the command fails
  std::vector<uint64_t> frames;
  auto shown = t0 - 1s;
  int rc = 0;
  while (status_acquire(v) != DONE_ACQ) {
    if (seconds_since(t0) > limit) {
      stop_acquire(v);
      out.fail(0, 0, format("still acquiring after %.1f s; stopped", seconds_since(t0)));
      return;
    }
    if (out.tty_text() && Clock::now() - shown > 200ms) {
      const uint32_t done = exposures_taken(v, before, rc);
      frames_counted(v, frames);
      out.text("\r\033[K%s %u/%d exposures, %llu frames counted, %.1f s left",
               tools::progress_bar(static_cast<double>(done) / r.exposures).c_str(), done, r.exposures,
               static_cast<unsigned long long>(total(frames)), std::max(0.0, expected - seconds_since(t0)));
      shown = Clock::now();
    }
    std::this_thread::sleep_for(5ms);
  }
  const double took = seconds_since(t0);
  if (out.tty_text())
    out.text("\r\033[K");
  const uint32_t taken = exposures_taken(v, before, rc);
  if (!step(rc, "reading the exposure counter"))
    return;
  if (!frames_counted(v, frames)) {
    out.fail(0, 0, "the data server does not tell its frame count");
    return;
  }
  out.set("exposures", json_object_new_int(r.exposures));
  out.set("taken", json_object_new_int64(taken));
  out.set("seconds", json_number(took, format("%.3f", took).c_str()));
  json_object* list = json_object_new_array();
  for (uint64_t f : frames)
    json_object_array_add(list, json_object_new_int64(static_cast<int64_t>(f)));
  out.set("frames", list);
  std::string counts;
  for (uint64_t f : frames)
    counts += format(" %llu", static_cast<unsigned long long>(f));
  out.text("%u exposure(s) of %g s every %g s in %.2f s; frames counted by the data server per module:%s\n", taken,
           r.exposure, r.period, took, counts.c_str());
  if (taken != static_cast<uint32_t>(r.exposures))
    out.fail(1, 0, format("%u exposure(s) counted, %d asked for", taken, r.exposures));
  for (std::size_t m = 0; m < frames.size(); ++m)
    if (frames[m] != static_cast<uint64_t>(r.exposures))
      out.fail(static_cast<int>(m) + 1, 0,
               format("the data server counted %llu frame(s)", static_cast<unsigned long long>(frames[m])));
  if (!r.png.empty())
    write_picture(d, out, r.png);
}

// ---- temps ----

void temps(Detector& d, Output& out)
{
  if (!d.open(Reach::modules, false, out))
    return;
  varkel_t* v = d.handle();
  const varkel_params_t& p = v->varkelParam;
  json_object* list = json_object_new_array();
  out.set("modules", list);
  for (int m = 1; m <= v->max_num_modules; ++m) {
    // The average first: a module that cannot give it is not asked for 84 more.
    if (const int rc = select_module(v, m) | US_TemperatureChipAvg(v); rc != 0) {
      out.fail(m, 0, rc, "chip average temperature");
      continue;
    }
    if (const int rc = getMFB_Temperature(v, m) | getChip_Temperature(v, m); rc != 0)
      out.fail(m, 0, rc, "board and chip temperatures");
    json_object* o = json_object_new_object();
    json_object_object_add(o, "module", json_object_new_int(m));
    json_object_object_add(o, "average", json_reading(p.avg_chip_temperature[m - 1]));
    out.text("module %d   chip average %.2f\n  boards  ", m, double{p.avg_chip_temperature[m - 1]});
    json_object* boards = json_object_new_array();
    for (int b = 0; b < v->max_num_boards; ++b) {
      const float* sensors = p.mfb_temperature[m - 1] + b * 16;
      json_object* s = json_object_new_array();
      for (int i = 0; i < 16; ++i)
        json_object_array_add(s, json_reading(sensors[i]));
      json_object_array_add(boards, s);
      const auto [lo, hi] = std::minmax_element(sensors, sensors + 16);
      out.text("%d: %.2f-%.2f  ", b, double{*lo}, double{*hi});
    }
    json_object_object_add(o, "boards", boards);
    out.text("(16 sensors each, min-max)\n");
    // Chip numbers as the library reads them, twelve to a line.
    json_object* chips = json_object_new_array();
    for (int c = 1; c <= v->num_all_chips; ++c) {
      json_object_array_add(chips, json_reading(p.allchip_temperature[m - 1][c - 1]));
      if ((c - 1) % 12 == 0)
        out.text("  %s %2d-%-2d ", c == 1 ? "chips " : "      ", c, std::min(c + 11, int{v->num_all_chips}));
      out.text(" %5.1f%s", double{p.allchip_temperature[m - 1][c - 1]},
               c % 12 == 0 || c == v->num_all_chips ? "\n" : "");
    }
    json_object_object_add(o, "chips", chips);
    json_object_array_add(list, o);
  }
}

// ---- chips ----

void chips(Detector& d, Output& out)
{
  if (!d.open(Reach::modules, false, out))
    return;
  varkel_t* v = d.handle();
  if (const int rc = check_and_disable_sensors(v); rc != 0)
    out.fail(0, 0, rc, "presence check");
  json_object* list = json_object_new_array();
  out.set("modules", list);
  for (int m = 1; m <= v->max_num_modules; ++m) {
    json_object* off = json_object_new_array();
    std::string named;
    int answering = 0;
    for (int c : chips_of(d, {})) {
      if (!v->sensor_disabled[m - 1][c - 1]) {
        ++answering;
        continue;
      }
      json_object_array_add(off, json_object_new_int(c));
      named += format("%s%d (board %d, position %d)", named.empty() ? "" : ", ", c, 2 - (c - 1) / 12, (c - 1) % 12);
    }
    json_object* o = json_object_new_object();
    json_object_object_add(o, "module", json_object_new_int(m));
    json_object_object_add(o, "answering", json_object_new_int(answering));
    json_object_object_add(o, "disabled", off);
    json_object_array_add(list, o);
    out.text("module %d: %d chip(s) answer%s%s\n", m, answering,
             named.empty() ? "" : "; switched off: ", named.c_str());
  }
}

// ---- scan ----

namespace {

// The DACs the controller can scan toward an aim.
struct ScanDac {
  const char* name;
  varkel_dac_t dac;
  double aim; // volts
};
constexpr ScanDac kScanDacs[] = {{"GND", DAC_GND, 0.65}, {"FBK", DAC_FBK, 0.9}, {"CAS", DAC_CAS, 0.85}};

const ScanDac* find_scan_dac(std::string name)
{
  if (name.rfind("dac.", 0) == 0)
    name.erase(0, 4);
  for (const ScanDac& s : kScanDacs)
    if (strcasecmp(s.name, name.c_str()) == 0)
      return &s;
  return nullptr;
}

} // namespace

std::string scan_dac_names()
{
  std::string names;
  for (const ScanDac& s : kScanDacs)
    names += format("%s%s (aim %g V)", names.empty() ? "" : ", ", s.name, s.aim);
  return names;
}

void scan(Detector& d, Output& out, const ScanRequest& r)
{
  const ScanDac* dac = find_scan_dac(r.dac);
  if (dac == nullptr) {
    out.refuse("scan: no aim for DAC '" + r.dac + "'; scans go toward the aims of " + scan_dac_names());
    return;
  }
  if (r.step == 0 || r.from < 0 || r.from > 255 || r.to < 0 || r.to > 255 ||
      !validate_dac_scan((r.to - r.from) / r.step)) {
    out.refuse(format("scan: codes %d to %d in steps of %d: codes are 0 to 255 and a scan takes 1 to 69 steps", r.from,
                      r.to, r.step));
    return;
  }
  if (!check_address(d, r.at, out) || !d.open(Reach::modules, false, out))
    return;
  varkel_t* v = d.handle();
  out.set("dac", json_text(dac->name));
  out.set("aim", json_number(dac->aim, format("%g", dac->aim).c_str()));
  json_object* list = json_object_new_array();
  out.set("chips", list);
  out.text("%s toward %g V over codes %d to %d in steps of %d:\n", dac->name, dac->aim, r.from, r.to, r.step);
  for (int m : modules_of(d, r.at))
    for (int c : chips_of(d, r.at)) {
      int rc = select_module(v, m) | select_chipNumber(v, c);
      rc = rc != 0 ? rc : US_DAC_Scan(v, dac->dac, r.from, r.to, r.step, VARKEL_SEND_ONE_CHIP_ONE_MODULE);
      rc = rc != 0 ? rc : get_dac(v, DIGITAL_READ_SINGLE_DAC, dac->dac) | get_dac(v, ANALOG_READ_SINGLE_DAC, dac->dac);
      if (rc != 0) {
        out.fail(m, c, rc, format("scan of %s", dac->name));
        break; // the module's other chips would fail alike, each after a time-out
      }
      const int code = v->digital_dac_values[c - 1][dac->dac - 1];
      const double volts = v->analog_dac_values[c - 1][dac->dac - 1];
      json_object* o = json_object_new_object();
      json_object_object_add(o, "module", json_object_new_int(m));
      json_object_object_add(o, "chip", json_object_new_int(c));
      json_object_object_add(o, "code", json_object_new_int(code));
      json_object_object_add(o, "volts", json_number(volts, format("%.4f", volts).c_str()));
      json_object_array_add(list, o);
      out.text("  module %d chip %-2d  code %3d  %.4f V\n", m, c, code, volts);
    }
}

} // namespace varkel::cli
