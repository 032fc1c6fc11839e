// A scripted data server: a loopback peer speaking the 400-byte records. On
// accept it greets with an `initArgs` (or a named failure), takes the library's
// acknowledgement, then records every request and answers it as the test's
// handler says: a record, or one of the named failures.
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "loopback_server.hpp"
#include "varkel.h"

namespace varkel::testing {

using loopback::arm_reset;
using loopback::LoopbackServer;
using loopback::send_all;

using Record = std::array<uint8_t, 400>;

template <typename T> Record to_record(const T& r)
{
  static_assert(sizeof(T) == 400);
  Record out;
  std::memcpy(out.data(), &r, out.size());
  return out;
}

template <typename T> T from_record(const Record& r)
{
  static_assert(sizeof(T) == 400);
  T out;
  std::memcpy(&out, r.data(), sizeof out);
  return out;
}

// The failures the fake can put on the wire, shared with the tests.
enum class Trigger {
  none,             // the record, whole
  short_record,     // its first 399 bytes, then close
  oversized_record, // the record followed by 400 bytes of 0xEE (a stray second record)
  wrong_type,       // the record with its type byte replaced by kWrongType
  close,            // close without answering
  reset,            // reset the connection without answering
  silence,          // answer nothing and keep the connection open
};
inline constexpr uint8_t kWrongType = 4;

struct RecordReply {
  Trigger trigger = Trigger::none;
  Record record{};

  template <typename T> static RecordReply of(const T& r, Trigger trigger = Trigger::none)
  {
    return {trigger, to_record(r)};
  }
  static RecordReply failure(Trigger trigger) { return {trigger, {}}; }
  static RecordReply ack() { return of(simpleArgs{ACK, 0, {}}); }
  static RecordReply nak(uint8_t error) { return of(simpleArgs{NAK, error, {}}); }
};

// RDMA parameters with a distinct value in every field.
initArgs sample_init_args();
// A plausible answer to any request: ACK, a status, a save status DONE.
RecordReply default_reply(const Record& request);

// Held while a test or benchmark creates, maps or removes a segment under the
// data server's fixed shared-memory names: serialises every such user on this
// machine (a ctest RESOURCE_LOCK covers one ctest run only).
class ShmNamesLock {
public:
  ShmNamesLock();
  ~ShmNamesLock();
  ShmNamesLock(const ShmNamesLock&) = delete;
  ShmNamesLock& operator=(const ShmNamesLock&) = delete;
  bool held() const { return held_; }

private:
  int fd_ = -1;
  bool held_ = false;
};

class FakeDataServer {
public:
  using Handler = std::function<RecordReply(const Record& request)>;

  explicit FakeDataServer(Handler handler = nullptr);
  ~FakeDataServer();

  uint16_t port() const { return server_->port(); }
  int accepted() const { return server_->accepted(); }
  void set_handler(Handler handler);
  // What the next accepted connections receive first: sample_init_args() by
  // default; a trigger other than none spoils it.
  void set_greeting(const initArgs& args, Trigger trigger = Trigger::none);
  // Before each reply the fake watches the connection for this long: a request
  // arriving meanwhile means two exchanges overlapped on the socket.
  void set_reply_window(std::chrono::microseconds window);
  // Off: requests are counted but not kept (long benchmark runs).
  void set_recording(bool on);

  std::vector<Record> requests() const;
  std::size_t request_count() const;
  std::vector<Record> handshake_acks() const;
  int overlaps() const;
  bool wait_for_requests(std::size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
  // Waits until `n` handshake acknowledgements have arrived; false after `timeout`.
  bool wait_for_acks(std::size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
  // Shuts every connection down and stops accepting.
  void stop() { server_->stop(); }

private:
  void serve(int fd);
  void answer(int fd, const RecordReply& reply);

  mutable std::mutex mutex_;
  mutable std::condition_variable arrived_;
  Handler handler_;
  initArgs greeting_;
  Trigger greeting_trigger_ = Trigger::none;
  std::chrono::microseconds window_{0};
  bool recording_ = true;
  std::size_t count_ = 0;
  int overlaps_ = 0;
  std::vector<Record> requests_;
  std::vector<Record> acks_;
  std::unique_ptr<LoopbackServer> server_;
};

} // namespace varkel::testing
