// A scripted data server: a loopback peer speaking the 400-byte records. On
// accept it greets with sample_init_args() (spoiled if asked to), takes the
// library's acknowledgement, then records every request and answers it as the
// handler says: a record, or one of the failures below.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <vector>

#include "loopback_server.hpp"
#include "varkel.h"

namespace varkel::testing {

using Record = std::array<uint8_t, 400>;

enum class Trigger {
  none,             // the record, whole
  short_record,     // its first 399 bytes, then close
  oversized_record, // the record followed by 400 bytes of 0xEE (a stray second record)
  wrong_type,       // the record with its type byte replaced by 4
  split,            // the first 100 bytes, the rest 100 ms later
  drip,             // one byte at a time
  silence,          // no answer; the connection stays open
  close,            // close without answering
  reset,            // reset the connection without answering
  split_record,     // its first 200 bytes, then the fake's between-parts step, then the rest
};

struct RecordReply {
  Trigger trigger = Trigger::none;
  Record record{};

  template <typename T> static RecordReply of(const T& r, Trigger t = Trigger::none)
  {
    static_assert(sizeof(T) == 400);
    RecordReply out{t};
    std::memcpy(out.record.data(), &r, out.record.size());
    return out;
  }
  static RecordReply ack() { return of(simpleArgs{ACK, 0, {}}); }
  static RecordReply nak(uint8_t error) { return of(simpleArgs{NAK, error, {}}); }
};

// RDMA parameters with a distinct value in every field.
initArgs sample_init_args();

// Held while a test or benchmark creates, maps or removes a segment under the
// data server's fixed shared-memory names: serialises every such user on this
// machine (a ctest RESOURCE_LOCK covers one ctest run only).
struct ShmNamesLock {
  ShmNamesLock();
  ~ShmNamesLock();
  ShmNamesLock(const ShmNamesLock&) = delete;
  ShmNamesLock& operator=(const ShmNamesLock&) = delete;
  bool held() const { return fd >= 0; }
  int fd; // -1 when the lock could not be taken
};

class FakeDataServer {
public:
  // Without a handler every request gets an ACK, save status requests a DONE.
  using Handler = std::function<RecordReply(const Record& request)>;
  explicit FakeDataServer(Handler handler = nullptr);

  uint16_t port() const { return server_.port(); }
  // Spoils the greeting of the connections accepted from now on.
  void spoil_greeting(Trigger t) { greeting_ = t; }
  // Spoils every reply from now on, whatever the handler answers.
  void spoil_replies(Trigger t) { spoiled_ = t; }
  // Before each reply the fake watches the connection for this long: a request
  // arriving meanwhile means two exchanges overlapped on the socket.
  void set_reply_window(std::chrono::milliseconds window) { window_ms_ = static_cast<int>(window.count()); }
  int overlaps() const { return overlaps_; }
  // What happens between the two parts of a split record (nothing by default).
  void set_between_parts(std::function<void()> step) { between_parts_ = std::move(step); }
  std::vector<Record> requests() const;
  // The handshake acknowledgements, once `n` have arrived (or after 5 s).
  std::vector<Record> acks(std::size_t n) const;

private:
  void serve(int fd);

  mutable std::mutex mutex_;
  mutable std::condition_variable acked_;
  const Handler handler_;
  std::function<void()> between_parts_;
  std::atomic<Trigger> greeting_{Trigger::none}, spoiled_{Trigger::none};
  std::atomic<int> window_ms_{0}, overlaps_{0};
  std::vector<Record> requests_, acks_;
  loopback::LoopbackServer server_; // last: stopped before the members its sessions use
};

} // namespace varkel::testing
