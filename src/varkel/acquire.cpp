// Acquire and wait, once for every caller: write only what the request gives,
// start, and wait with a deadline, progress and cancellation. The wait asks the
// controller itself (its exposure counter) at every look, so that a controller
// that stops answering or drops its connection ends it; status_acquire, which
// keeps quiet about a failed query, is only one input.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <ctime>
#include <sys/time.h>

#include "internal/acquisition_limits.hpp"
#include "internal/handle.hpp"
#include "internal/truthful.hpp"
#include "workflow.h"

using namespace varkel::detail;

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto kPollInterval = 50ms; // between two looks at the controller
constexpr auto kCancelSlice = 10ms;  // at most this long between two looks at the cancel flag

double seconds_since(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

// A time the request gives: anything but a negative number (NaN too, to be refused).
bool given(double seconds) { return !(seconds < 0); }

// Read as an atomic: a flag another thread sets is then no data race on our side.
bool cancelled(const varkel_acquire_request_t& r)
{
  return r.cancel != nullptr && __atomic_load_n(r.cancel, __ATOMIC_ACQUIRE) != 0;
}

// The handle's acquiring flag, held for one run and cleared on every way out.
class RunFlag {
public:
  explicit RunFlag(varkel_t* v) : flag_(extras(v).acquiring), owned_(!flag_.exchange(true)) {}
  ~RunFlag()
  {
    if (owned_)
      flag_.store(false);
  }
  RunFlag(const RunFlag&) = delete;
  RunFlag& operator=(const RunFlag&) = delete;
  bool owned() const { return owned_; }

private:
  std::atomic<bool>& flag_;
  bool owned_;
};

struct Times {
  float exposure = 0, period = 0;
  uint32_t exposures = 0;
};

// -7 for a lead module the model does not have, -3 for a value the library would
// refuse (both noted); else 0. Nothing is sent.
int check_request(varkel_t* v, const varkel_acquire_request_t& r)
{
  if (r.lead_module < 0 || r.lead_module > v->max_num_modules) {
    note_failure(v, -7, 0, 0, nullptr, nullptr, "there is no module %d to lead", r.lead_module);
    return -7;
  }
  if ((given(r.exposure) && !valid_acquire_time(static_cast<float>(r.exposure))) ||
      (given(r.period) && !valid_period(static_cast<float>(r.period))) || r.exposures < 0) {
    note_failure(v, -3, 0, 0, nullptr, nullptr, "exposure %g s, period %g s or %d exposures out of range", r.exposure,
                 r.period, r.exposures);
    return -3;
  }
  return 0;
}

// Reads the exposure, period and exposure count in force on module `m`.
int read_in_force(varkel_t* v, int m, Times& now)
{
  int rc = select_module(v, m);
  rc = rc != 0 ? rc : truthful(v, [&] { return US_AcquireTime_RBV(v) | US_AcquirePeriod_RBV(v); });
  rc = rc != 0 ? rc : truthful(v, [&] { return US_NumExposures_RBV(v); });
  now = {v->acquireParam.acquireTime, v->acquireParam.acquirePeriod, v->acquireParam.numExposures};
  return rc;
}

// Writes the values the request gives, exposure and period in the order the
// values in force allow; `run` gets the values the acquisition runs with.
int write_request(varkel_t* v, const varkel_acquire_request_t& r, const Times& now, Times& run)
{
  const bool exposure = given(r.exposure), period = given(r.period);
  run = {exposure ? static_cast<float>(r.exposure) : now.exposure, period ? static_cast<float>(r.period) : now.period,
         r.exposures > 0 ? static_cast<uint32_t>(r.exposures) : now.exposures};
  if ((exposure || period) && !exposure_fits(run.exposure, run.period)) {
    note_failure(v, -3, 0, 0, nullptr, nullptr, "exposure %g s does not fit the period %g s", double{run.exposure},
                 double{run.period});
    return -3;
  }
  // A longer exposure waits for its longer period; when the new exposure does not
  // fit the period in force, the new period fits the exposure in force.
  const bool period_first = exposure && period && !exposure_fits(run.exposure, now.period);
  const auto write_period = [&] { return truthful(v, [&] { return set_periodTime(v, run.period); }); };
  int rc = period_first ? write_period() : 0;
  if (rc == 0 && exposure)
    rc = truthful(v, [&] { return set_acquireTime(v, run.exposure); });
  if (rc == 0 && period && !period_first)
    rc = write_period();
  if (rc == 0 && r.exposures > 0)
    rc = truthful(v, [&] { return set_numberExposures(v, r.exposures); });
  return rc;
}

// Arranges the triggers, prepares the data server, notes the counter of the
// counting module in `before` and starts; `started` once the start was sent.
int start(varkel_t* v, int lead, int counting, uint32_t& before, bool& started)
{
  int rc = 0;
  if (lead > 0 && v->max_num_modules > 1)
    rc = truthful(v, [&] {
      return define_master_module(v, static_cast<uint8_t>(lead), false, VARKEL_TRIGGER_MODE_EXTERNAL_POS_EDGE);
    });
  rc = rc != 0 ? rc : truthful(v, [&] { return varkel_prepare_data_server(v); });
  rc = rc != 0 ? rc : select_module(v, counting);
  rc = rc != 0 ? rc : truthful(v, [&] { return US_NumExposuresCounter_RBV(v); });
  before = v->acquireParam.numExposuresTotal;
  if (rc != 0)
    return rc;
  started = true;
  rc = truthful(v, [&] { return execute_acquire(v); });
  // execute_acquire starts module 1 alone unless the trigger is by software: a
  // leading module other than 1 is started too, and module 1 follows its shutter.
  if (rc == 0 && lead > 1 && !v->varkelParam.software_trigger)
    rc = select_module(v, lead) | truthful(v, [&] { return US_Acquire(v, true); });
  return rc;
}

struct Wait {
  varkel_t* v;
  const varkel_acquire_request_t& r;
  int counting; // the module whose exposure counter is read
  uint32_t before;
  double expected; // seconds the exposures take
  Clock::time_point t0;
  varkel_acquire_progress_t p{};
};

uint64_t frames_counted(const varkel_t* v)
{
  uint64_t frames = 0;
  for (int m = 0; m < v->max_num_modules; ++m)
    frames += v->acq_status_return.noOfFrames[m];
  return frames;
}

// One look at the acquisition: the counting module's exposure counter, the data
// server's frames and status_acquire. Returns the code of a failed read; `done`
// once every exposure is counted or status_acquire says so.
int look(Wait& w, bool& done)
{
  varkel_t* v = w.v;
  int rc = v->varkel_module == w.counting ? 0 : select_module(v, w.counting);
  rc = rc != 0 ? rc : truthful(v, [&] { return US_NumExposuresCounter_RBV(v); });
  if (rc != 0)
    return rc;
  const uint32_t counted = v->acquireParam.numExposuresTotal - w.before;
  if (v->backend_socket >= 0) {
    if ((rc = get_acqStatus_fromBackend(v)) != 0)
      return rc;
    w.p.frames = frames_counted(v);
  }
  bool finished = false; // counts only when its query did not fail
  rc = truthful(v, [&] {
    finished = status_acquire(v) == DONE_ACQ;
    return 0;
  });
  if (rc != 0)
    return rc;
  const auto asked = static_cast<uint32_t>(w.p.exposures);
  done = finished || (asked > 0 && counted >= asked);
  w.p.exposures_done = static_cast<int>(std::min<uint32_t>(counted, INT_MAX));
  w.p.elapsed = seconds_since(w.t0);
  const double by_count = asked > 0 ? static_cast<double>(std::min(counted, asked)) / asked : 0.0;
  const double by_time = w.expected > 0 ? std::min(w.p.elapsed / w.expected, 0.99) : 0.0;
  w.p.fraction = done ? 1.0 : std::max(w.p.fraction, std::min(counted > 0 ? by_count : by_time, 0.99));
  return 0;
}

// Sleeps until `next` in short slices that a signal cuts shorter still, looking
// at the cancel flag and the deadline between them: ECANCELED, ETIMEDOUT or 0.
int pause_until(const Wait& w, Clock::time_point next, double limit)
{
  for (;;) {
    if (cancelled(w.r))
      return ECANCELED;
    if (seconds_since(w.t0) > limit)
      return ETIMEDOUT;
    const auto now = Clock::now();
    if (now >= next)
      return 0;
    const auto slice =
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::min<Clock::duration>(next - now, kCancelSlice));
    const timespec ts{0, static_cast<long>(slice.count())};
    nanosleep(&ts, nullptr); // EINTR: a signal came, perhaps the one that cancels
  }
}

int wait_for(Wait& w)
{
  const double limit = w.r.deadline > 0 ? w.r.deadline : 2 * w.expected + 10;
  for (auto next = w.t0;;) {
    bool done = false;
    if (const int rc = look(w, done); rc != 0)
      return rc;
    if (w.r.progress != nullptr)
      w.r.progress(&w.p, w.r.user);
    if (done)
      return 0;
    next = std::max(next + kPollInterval, Clock::now()); // a slow look delays the next, never crowds them
    if (const int rc = pause_until(w, next, limit); rc != 0)
      return rc;
  }
}

// Tells every module to stop, and disarms the process timer execute_acquire
// armed, so that its signal does not fall into whatever the process does next.
void stop_everything(varkel_t* v)
{
  stop_acquire(v);
  const itimerval off{};
  setitimer(ITIMER_REAL, &off, nullptr);
}

} // namespace

void varkel_acquire_request_init(varkel_acquire_request_t* request)
{
  *request = {};
  request->exposure = -1;
  request->period = -1;
}

int varkel_acquire(varkel_t* varkel, const varkel_acquire_request_t* request, varkel_acquire_result_t* result)
{
  varkel_acquire_request_t defaults;
  varkel_acquire_request_init(&defaults);
  const varkel_acquire_request_t& r = request != nullptr ? *request : defaults;
  varkel_acquire_result_t unused{};
  varkel_acquire_result_t& out = result != nullptr ? *result : unused;
  out = {};
  RunFlag flag(varkel);
  if (!flag.owned()) {
    note_failure(varkel, VARKEL_BUSY, 0, 0, nullptr, nullptr, "an acquisition runs already");
    return VARKEL_BUSY;
  }
  if (const int rc = check_request(varkel, r); rc != 0)
    return rc;
  if (cancelled(r))
    return ECANCELED;
  const int counting = r.lead_module > 0 ? r.lead_module : 1;
  Times now, run;
  uint32_t before = 0;
  bool started = false;
  int rc = read_in_force(varkel, counting, now);
  rc = rc != 0 ? rc : write_request(varkel, r, now, run);
  rc = rc != 0 ? rc : start(varkel, r.lead_module, counting, before, started);
  Wait w{varkel, r, counting, before, run.exposures * std::max<double>(run.exposure, run.period), Clock::now()};
  w.p.exposures = static_cast<int>(std::min<uint32_t>(run.exposures, INT_MAX));
  if (rc == 0)
    rc = wait_for(w);
  if (rc != 0 && started) {
    stop_everything(varkel);
    out.stopped = 1;
  }
  out.exposures_done = w.p.exposures_done;
  out.frames = w.p.frames;
  out.elapsed = seconds_since(w.t0);
  return rc;
}

int varkel_acquiring(varkel_t* varkel) { return extras(varkel).acquiring.load() ? 1 : 0; }
