// acquire: the library's acquisition workflow, with a progress bar on a terminal,
// ended early by Ctrl-C or SIGTERM with the detector stopped.
#include <cerrno>
#include <climits>
#include <csignal>
#include <memory>

#include "commands.hpp"
#include "common/picture.hpp"
#include "common/text.hpp"
#include "workflow.h"

namespace varkel::cli {

using tools::format;

namespace {

struct Request {
  varkel_acquire_request_t given; // only what the command line gives
  std::string png;                // where to write the sample frame; empty: not at all
};

volatile sig_atomic_t g_signal = 0; // the signal that asked the acquisition to end

extern "C" void on_signal(int signo) { g_signal = signo; }

// SIGINT and SIGTERM end the wait instead of the process while it lives; without
// SA_RESTART, so that a blocking call returns to the workflow's checks.
class Interrupts {
public:
  Interrupts()
  {
    struct sigaction a = {};
    a.sa_handler = on_signal;
    sigemptyset(&a.sa_mask);
    sigaction(SIGINT, &a, &old_int_);
    sigaction(SIGTERM, &a, &old_term_);
  }
  ~Interrupts()
  {
    sigaction(SIGINT, &old_int_, nullptr);
    sigaction(SIGTERM, &old_term_, nullptr);
  }
  Interrupts(const Interrupts&) = delete;
  Interrupts& operator=(const Interrupts&) = delete;

private:
  struct sigaction old_int_ = {}, old_term_ = {};
};

struct Progress {
  Output* out;
  varkel_acquire_progress_t last{};
};

void show_progress(const varkel_acquire_progress_t* p, void* user)
{
  auto* progress = static_cast<Progress*>(user);
  progress->last = *p;
  if (progress->out->tty_text())
    progress->out->text("\r\033[K%s %d/%d exposures, %llu frames counted, %.1f s",
                        tools::progress_bar(p->fraction).c_str(), p->exposures_done, p->exposures,
                        static_cast<unsigned long long>(p->frames), p->elapsed);
}

void write_picture(Detector& d, Output& out, const std::string& path)
{
  varkel_t* v = d.handle();
  if (!d.run(out, 0, 0, "cannot copy the sample frame", [&] { return get_array_data(v); }))
    return;
  const auto face = tools::place_on_face(v, v->sample_frame);
  const tools::Picture picture = face ? tools::shade(*face, 4) : tools::Picture{};
  if (!face || !tools::write_png(path, picture))
    return out.fail(0, 0, "cannot write " + path);
  json_object* png = json_object_new_object();
  json_object_object_add(png, "file", json_text(path));
  json_object_object_add(png, "width", json_object_new_int(picture.width));
  json_object_object_add(png, "height", json_object_new_int(picture.height));
  out.set("png", png);
  out.text("sample frame -> %s (%d x %d)\n", path.c_str(), picture.width, picture.height);
}

// What the acquisition did, as JSON and a line.
void summarize(Output& out, const varkel_acquire_result_t& r, const Progress& p)
{
  out.set("exposures", json_object_new_int(p.last.exposures));
  out.set("taken", json_object_new_int(r.exposures_done));
  out.set("frames", json_object_new_int64(static_cast<int64_t>(r.frames)));
  out.set("seconds", json_number(r.elapsed, format("%.3f", r.elapsed).c_str()));
  out.set("stopped", json_object_new_boolean(r.stopped));
  if (out.tty_text())
    out.text("\r\033[K");
}

void run_acquire(Detector& d, Output& out, const Request& q)
{
  const bool frame = varkel_model_has_data_server(d.model()) != 0;
  if (!q.png.empty() && !frame)
    return out.refuse("--png: this model publishes no sample frame");
  if (q.given.lead_module > d.modules())
    return out.refuse(format("--lead %d: this detector has modules 1 to %d", q.given.lead_module, d.modules()));
  if (!d.open(Reach::everything, frame, out))
    return;
  Progress progress{&out};
  varkel_acquire_request_t request = q.given;
  request.cancel = &g_signal;
  request.progress = show_progress;
  request.user = &progress;
  varkel_acquire_result_t result{};
  const uint64_t before = varkel_failure_count(d.handle());
  const Interrupts interrupts;
  const int rc = varkel_acquire(d.handle(), &request, &result);
  summarize(out, result, progress);
  const char* stopped = result.stopped ? "the detector was stopped" : "the detector was not told to stop";
  if (rc == ECANCELED && g_signal != 0)
    return out.interrupted(g_signal,
                           format("interrupted after %d of %d exposures; %s", result.exposures_done,
                                  q.given.exposures > 0 ? q.given.exposures : progress.last.exposures, stopped));
  if (!d.verdict(out, 0, 0, result.stopped ? format("acquire (%s)", stopped) : "acquire", rc, before))
    return;
  out.text("%d exposure(s) in %.2f s; %llu frame(s) counted by the data server\n", result.exposures_done,
           result.elapsed, static_cast<unsigned long long>(result.frames));
  if (!q.png.empty())
    write_picture(d, out, q.png);
}

} // namespace

void setup_acquire(Commands& c)
{
  auto q = std::make_shared<Request>();
  varkel_acquire_request_init(&q->given);
  // As in Python: module 1 leads by default, so that a detector fresh from its
  // defaults acquires on every module; 0 keeps the triggers as they are.
  q->given.lead_module = 1;
  CLI::App* cmd = c.add("acquire", "take exposures; what is not given stays as the detector has it");
  cmd->add_option("--exposure", q->given.exposure, "seconds per exposure")->check(CLI::PositiveNumber);
  cmd->add_option("--period", q->given.period, "seconds from one exposure to the next")->check(CLI::NonNegativeNumber);
  cmd->add_option("--exposures", q->given.exposures, "number of exposures")->check(CLI::Range(1, INT_MAX));
  cmd->add_option("--lead", q->given.lead_module,
                  "module whose shutter output starts the others (default 1; 0 keeps the triggers as they are, and a "
                  "module waiting for a trigger no one gives takes no exposures)")
      ->check(CLI::Range(0, 4));
  cmd->add_option("--png", q->png, "write the sample frame as a PNG");
  c.on(cmd, [q](Detector& d, Output& out) { run_acquire(d, out, *q); });
}

} // namespace varkel::cli
