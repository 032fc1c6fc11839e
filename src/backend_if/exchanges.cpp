// The acquisition-time exchanges with the data server: one request record, one
// reply record each, all through `exchange`, the only code that talks on the
// data-server socket after the handshake.
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "ethernet.h"
#include "internal/backend.hpp"
#include "internal/backend_records.hpp"
#include "internal/descriptor.hpp"

namespace varkel::detail {

namespace {

enum class OnFailure { fail, end_process, close_and_end_process };

// How one exchange reports a failed send or a short reply.
struct Exchange {
  const char* send_failed; // printed when the request does not go out whole
  OnFailure send_failure;
  const char* receive_failed; // printed when the reply is short
  OnFailure receive_failure;
  bool locked = true; // hold backend_socket_mutex from the send until the reply is judged
  void (*report_short_reply)(ssize_t received) = nullptr; // prints instead of receive_failed
};

// A judge's verdict on an unacceptable reply: end the process once the lock is released.
constexpr int kEndProcess = std::numeric_limits<int>::min();

[[noreturn]] void end_process(varkel_t* v, bool close_socket)
{
  if (close_socket)
    release_descriptor(v->backend_socket);
  std::exit(0);
}

// Sends the record `build` returns and receives its 400-byte reply into `reply`,
// then returns what `judge` makes of it. The request is built and the reply
// judged under the lock (when the exchange takes it), so concurrent exchanges
// never interleave on the socket nor see each other's records half written. A
// failure prints the exchange's text and returns -1 or ends the process.
template <typename Build, typename Judge>
int exchange(varkel_t* v, const Exchange& x, Build&& build, void* reply, Judge&& judge)
{
  OnFailure failure;
  {
    BackendLock lock(v->backend_socket_mutex, x.locked);
    if (!send_record(v->backend_socket, build())) {
      std::puts(x.send_failed);
      failure = x.send_failure;
    } else if (const ssize_t got = receive_record(v->backend_socket, reply); got != static_cast<ssize_t>(kRecordSize)) {
      if (x.report_short_reply != nullptr)
        x.report_short_reply(got);
      else
        std::puts(x.receive_failed);
      failure = x.receive_failure;
    } else {
      const int verdict = judge();
      if (verdict != kEndProcess)
        return verdict;
      failure = OnFailure::end_process;
    }
  }
  if (failure == OnFailure::fail)
    return -1;
  end_process(v, failure == OnFailure::close_and_end_process);
}

void print_banner(const char* request)
{
  std::printf("\n------------------------------\n%s\n------------------------------\n", request);
}

// Copies `text` into a character field, zero-filling the rest of it.
template <std::size_t N> void set_text_field(char (&field)[N], const char* text)
{
  std::strncpy(field, text, N - 1);
  field[N - 1] = '\0';
}

// A save status reply must say SAVE_STATUS; otherwise the process ends.
int judge_save_status(const saveStatusArgs& status)
{
  if (status.type != SAVE_STATUS) {
    std::printf("Unexpected response type on SAVE_STATUS. Expected %d, and received %d\n", SAVE_STATUS, status.type);
    return kEndProcess;
  }
  std::fputs(format_save_status(status).c_str(), stdout);
  return 0;
}

constexpr Exchange kAcquireArgs{"Error while sending ACQUIRE_ARGS request",
                                OnFailure::fail,
                                nullptr,
                                OnFailure::close_and_end_process,
                                true,
                                [](ssize_t received) {
                                  perror("send_acqArgs_toBackend");
                                  std::printf(
                                      "Error while receiving ack for ACQUIRE_ARGS. Received: %d, Expected: %lu\n",
                                      static_cast<int>(received), static_cast<unsigned long>(kRecordSize));
                                }};
constexpr Exchange kAcquireStatus{"Error while sending ACQUIRE_STATUS request", OnFailure::fail,
                                  "Error while receiving ACQUIRE_STATUS return", OnFailure::close_and_end_process};
constexpr Exchange kSaveStatus{"Error while sending SAVE_STATUS request", OnFailure::fail,
                               "Error while receiving Save status args for SAVE_STATUS",
                               OnFailure::close_and_end_process};
constexpr Exchange kAbortSave{"Error while sending ABORT_SAVE request", OnFailure::end_process,
                              "Error while receiving ABORT_SAVE request acknowledgement", OnFailure::end_process,
                              false};
constexpr Exchange kStopAcquire{"Error while sending STOP_ACQUIRE request", OnFailure::fail,
                                "Error while receiving ack for STOP_ACQUIRE", OnFailure::fail};
constexpr Exchange kGeometry{"Error while sending GEOMETRY request", OnFailure::fail,
                             "Error while receiving ack for GEOMETRY", OnFailure::fail, false};

} // namespace

} // namespace varkel::detail

using namespace varkel::detail;

int send_acqArgs_toBackend(varkel_t* varkel)
{
  assert(varkel != NULL);
  print_banner(" Sending ACQUIRE_ARGS request");
  const auto build = [varkel] {
    varkel->acq_args.type = ACQUIRE_ARGS;
    varkel->acq_args.noOfAquisitions = static_cast<uint64_t>(static_cast<int64_t>(varkel->acquireParam.numCapture));
    return &varkel->acq_args;
  };
  return exchange(varkel, kAcquireArgs, build, &varkel->ack, [varkel] {
    if (varkel->ack.type == ACK) {
      std::puts("received ack on ACQUIRE_ARGS");
      return 0;
    }
    char text[100];
    decode_backend_error(varkel->ack.error, text);
    std::printf("Unexpected ack on ACQUIRE_ARGS. Expected ACK, and received NAK with error: %s\n", text);
    return -3;
  });
}

int get_acqStatus_fromBackend(varkel_t* varkel)
{
  assert(varkel != NULL);
  const simpleArgs request = simple_request(ACQUIRE_STATUS);
  return exchange(
      varkel, kAcquireStatus, [&] { return &request; }, &varkel->acq_status_return, [] { return 0; });
}

int get_saveStatus_fromBackend(varkel_t* varkel, uint64_t* savedAcquisitions)
{
  assert(varkel != NULL);
  assert(savedAcquisitions != NULL);
  print_banner(" Sending SAVE_STATUS request");
  const simpleArgs request = simple_request(SAVE_STATUS);
  return exchange(
      varkel, kSaveStatus, [&] { return &request; }, &varkel->saveargs,
      [&] {
        const int verdict = judge_save_status(varkel->saveargs);
        if (verdict == 0)
          *savedAcquisitions = varkel->saveargs.savedAquisitionNum;
        return verdict;
      });
}

int abort_save(varkel_t* varkel)
{
  assert(varkel != NULL);
  print_banner(" Sending ABORT_SAVE request");
  const simpleArgs request = simple_request(ABORT_SAVE);
  saveStatusArgs status{};
  return exchange(
      varkel, kAbortSave, [&] { return &request; }, &status, [&] { return judge_save_status(status); });
}

int send_stopAcquire_toBackend(varkel_t* varkel)
{
  assert(varkel != NULL);
  print_banner(" Sending STOP_ACQUIRE request");
  const simpleArgs request = simple_request(STOP_ACQUIRE);
  return exchange(
      varkel, kStopAcquire, [&] { return &request; }, &varkel->ack,
      [varkel] {
        std::printf("Received STOP_ACQUIRE response with status %s\n", varkel->ack.type == ACK ? "DONE" : "NOT_DONE");
        return 0;
      });
}

int send_geometryFile_toBackend(varkel_t* varkel, char* geometry_file)
{
  assert(varkel != NULL);
  assert(geometry_file != NULL);
  geometryArgs request;
  // A path that does not fit the record is refused before anything is printed or sent.
  if (!geometry_request({geometry_file, strnlen(geometry_file, sizeof request.jsonfile)}, request))
    return ENAMETOOLONG;
  print_banner(" Sending GEOMETRY request");
  simpleArgs reply{};
  return exchange(
      varkel, kGeometry, [&] { return &request; }, &reply,
      [&] {
        if (reply.type == ACK) {
          std::puts("received ack on GEOMETRY");
          return 0;
        }
        std::printf("Returned NAK with error : %s\n", geometry_error_text(reply.error));
        return kEndProcess;
      });
}

int update_backend_acqArgs(varkel_t* varkel, uint8_t aquisitionMode, bool useLFSR, uint8_t saveMode,
                           bool resetRDMABuffer, uint16_t bcFramesToProcessPerTime, uint8_t extraDimensions)
{
  assert(varkel != NULL);
  acqArgs& args = varkel->acq_args;
  args.aquisitionMode = decode_backend_medipixMode(aquisitionMode);
  args.useLFSR = useLFSR;
  args.saveMode = saveMode;
  args.resetRDMABuffer = resetRDMABuffer;
  args.bcFramesToProcessPerTime = bcFramesToProcessPerTime;
  args.extraDimensions = extraDimensions;
  return 0;
}

int set_file_name_template(varkel_t* varkel, const char* name)
{
  assert(varkel != NULL);
  assert(name != NULL);
  if (strnlen(name, sizeof varkel->file_template) >= sizeof varkel->file_template)
    return ENAMETOOLONG;
  set_text_field(varkel->file_template, name);
  set_text_field(varkel->acq_args.savefile, name);
  return 0;
}

int prepare_backend(varkel_t* varkel)
{
  assert(varkel != NULL);
  set_text_field(varkel->acq_args.savefile, "Random string.");
  update_backend_acqArgs(varkel, VARKEL_MEDIPIX_MODE_DEFAULT, false, NO_SAVE, true, 1, 5);
  const int rc = send_acqArgs_toBackend(varkel);
  if (rc != 0) {
    std::fprintf(stderr, "%s\n", "error in send_acqArgs_toBackend");
    return rc;
  }
  return 0;
}

int prepare_varkel(varkel_t* varkel)
{
  assert(varkel != NULL);
  int rc = prepare_backend(varkel);
  rc |= init_array_data(varkel);
  if (rc != 0) {
    std::fprintf(stderr, "%s\n", "error in init_array_data");
    return rc;
  }
  return 0;
}

void timespec_diff(struct timespec* start, struct timespec* stop, struct timespec* result)
{
  assert(start != NULL);
  assert(stop != NULL);
  assert(result != NULL);
  if (stop->tv_nsec < start->tv_nsec) {
    result->tv_sec = stop->tv_sec - start->tv_sec - 1;
    result->tv_nsec = stop->tv_nsec - start->tv_nsec + 1000000000;
  } else {
    result->tv_sec = stop->tv_sec - start->tv_sec;
    result->tv_nsec = stop->tv_nsec - start->tv_nsec;
  }
}
