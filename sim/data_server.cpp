#include "data_server.hpp"

#include <cstring>
#include <fstream>
#include <json-c/json.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>

namespace varkel::sim {

namespace {

constexpr std::size_t kRecord = 400;
static_assert(sizeof(initArgs) == kRecord && sizeof(acqArgs) == kRecord && sizeof(acqStatusArgs) == kRecord &&
              sizeof(saveStatusArgs) == kRecord && sizeof(simpleArgs) == kRecord && sizeof(geometryArgs) == kRecord);

bool receive_record(int fd, uint8_t* record) { return varkel::loopback::receive_all(fd, record, kRecord); }

template <typename Record> void put(uint8_t* out, const Record& r) { std::memcpy(out, &r, kRecord); }

template <typename Record> Record take(const uint8_t* in)
{
  Record r;
  std::memcpy(&r, in, kRecord);
  return r;
}

void acknowledge(uint8_t* reply, std::optional<returnTypesEnum> nak)
{
  simpleArgs a{};
  a.type = nak ? NAK : ACK;
  a.error = nak ? *nak : 0;
  put(reply, a);
}

// A string field holds its terminating NUL within its width.
template <std::size_t N> std::optional<std::string> field_text(const char (&field)[N])
{
  const void* nul = std::memchr(field, 0, N);
  return nul ? std::optional<std::string>(field) : std::nullopt;
}

bool directory_exists(const std::string& path)
{
  const std::size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  struct stat st {};
  return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool is_json_file(const std::string& path)
{
  std::ifstream in(path);
  if (!in)
    return false;
  std::stringstream text;
  text << in.rdbuf();
  json_object* obj = json_tokener_parse(text.str().c_str());
  const bool ok = obj != nullptr && json_object_is_type(obj, json_type_object);
  json_object_put(obj);
  return ok;
}

} // namespace

DataServer::DataServer(World& world, const char* host, uint16_t port)
    : world_(world),
      server_(std::make_unique<varkel::loopback::LoopbackServer>([this](int fd) { serve(fd); }, host, port))
{
}

DataServer::~DataServer() { server_->stop(); }

void DataServer::serve(int fd)
{
  uint8_t request[kRecord], reply[kRecord];
  {
    std::lock_guard lock(world_.mutex);
    put(reply, world_.link);
  }
  if (!varkel::loopback::send_all(fd, reply, kRecord) || !receive_record(fd, request))
    return;
  // The client's answer to the link parameters: anything but an ACK ends the session.
  if (request[0] != ACK)
    return;
  while (receive_record(fd, request)) {
    {
      std::lock_guard lock(world_.mutex);
      world_.publish(Clock::now());
      std::memset(reply, 0, kRecord);
      switch (request[0]) {
      case ACQUIRE_ARGS:
        acquire_args(request, reply);
        break;
      case ACQUIRE_STATUS:
        acquire_status(reply);
        break;
      case SAVE_STATUS:
        save_status(reply, false);
        break;
      case ABORT_SAVE:
        save_status(reply, true);
        break;
      case STOP_ACQUIRE:
        stop_acquire(reply);
        break;
      case GEOMETRY:
        geometry(request, reply);
        break;
      default: // not a request this server takes
        acknowledge(reply, INVALID_AQUISITION_MODE);
        break;
      }
    }
    if (!varkel::loopback::send_all(fd, reply, kRecord))
      return;
  }
}

void DataServer::acquire_args(const uint8_t* request, uint8_t* reply)
{
  const acqArgs a = take<acqArgs>(request);
  const auto savefile = field_text(a.savefile);
  std::optional<returnTypesEnum> nak;
  if (a.aquisitionMode > DUALENERGY || a.saveMode > SAVE_AFTER)
    nak = INVALID_AQUISITION_MODE;
  else if (!savefile || (a.saveMode != NO_SAVE && (savefile->empty() || !directory_exists(*savefile))))
    nak = INVALID_SAVE_PATH;
  else if (a.noOfAquisitions > 1000000 || (a.saveMode != NO_SAVE && a.noOfAquisitions == 0))
    nak = INVALID_NUM_OF_ACQUISITIONS;
  acknowledge(reply, nak);
  if (nak)
    return;
  args_ = a;
  base_ = counts_now(Clock::now());
  stopped_.reset();
  save_aborted_.reset();
}

DataServer::Counts DataServer::counts_now(Clock::time_point now) const
{
  Counts c;
  for (int m = 0; m < world_.geo.modules; ++m) {
    c.frames[m] = world_.frames_delivered(m, now);
    c.runs[m] = world_.modules[m].delivered_runs;
  }
  return c;
}

DataServer::Counts DataServer::counted(Clock::time_point now) const
{
  if (stopped_)
    return *stopped_;
  Counts c = counts_now(now);
  for (int m = 0; m < 4; ++m) {
    c.frames[m] -= base_.frames[m];
    c.runs[m] -= base_.runs[m];
  }
  return c;
}

// Nothing is on its way: no module that sends frames is still acquiring.
bool DataServer::all_done(Clock::time_point now) const
{
  if (stopped_)
    return true;
  for (int m = 0; m < world_.geo.modules; ++m)
    if (world_.modules[m].link_up && world_.acquiring(m, now))
      return false;
  return true;
}

void DataServer::acquire_status(uint8_t* reply)
{
  const auto now = Clock::now();
  const Counts c = counted(now);
  acqStatusArgs s{};
  s.type = ACQUIRE_STATUS;
  uint64_t frames = 0, runs = 0;
  for (int m = 0; m < world_.geo.modules; ++m) {
    s.noOfFrames[m] = c.frames[m];
    s.noOfAquisitions[m] = c.runs[m];
    // Frames are taken off the RDMA buffer as they arrive: one in flight at most.
    s.bufferUsed[m] = world_.acquiring(m, now) && world_.link.bufferSize ? 1.0f / world_.link.bufferSize : 0.0f;
    frames += c.frames[m];
    runs += c.runs[m];
  }
  const bool done = all_done(now);
  s.done = done && frames > 0 ? 1 : 0;
  if (args_.saveMode == SAVE_DURING || (args_.saveMode == SAVE_AFTER && done)) {
    s.savedFrameNum = save_aborted_ ? 0 : frames;
    s.savedAquisitionNum = save_aborted_ ? 0 : runs;
  }
  put(reply, s);
}

void DataServer::save_status(uint8_t* reply, bool abort)
{
  const auto now = Clock::now();
  if (abort && !save_aborted_)
    save_aborted_ = counted(now);
  const Counts c = save_aborted_ ? *save_aborted_ : counted(now);
  saveStatusArgs s{};
  s.type = SAVE_STATUS;
  const bool saving = args_.saveMode != NO_SAVE;
  s.done = !saving || save_aborted_ || all_done(now) ? DONE : NOT_DONE;
  if (saving && (args_.saveMode == SAVE_DURING || s.done == DONE)) {
    for (int m = 0; m < world_.geo.modules; ++m) {
      s.savedFrameNum += c.frames[m];
      s.savedAquisitionNum += c.runs[m];
    }
  }
  put(reply, s);
}

void DataServer::stop_acquire(uint8_t* reply)
{
  if (!stopped_)
    stopped_ = counted(Clock::now());
  acknowledge(reply, std::nullopt); // type 0: stopped
}

void DataServer::geometry(const uint8_t* request, uint8_t* reply)
{
  const geometryArgs g = take<geometryArgs>(request);
  const auto path = field_text(g.jsonfile);
  acknowledge(reply, path && is_json_file(*path) ? std::nullopt : std::optional(INVALID_GEOMETRY_FILE));
}

} // namespace varkel::sim
