#include "fake_data_server.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <unistd.h>

namespace varkel::testing {

namespace {

// Reads one whole record; false when the peer closes or fails first.
bool read_record(int fd, Record& out)
{
  std::size_t got = 0;
  while (got < out.size()) {
    const ssize_t n = recv(fd, out.data() + got, out.size() - got, 0);
    if (n <= 0)
      return false;
    got += static_cast<std::size_t>(n);
  }
  return true;
}

} // namespace

initArgs sample_init_args()
{
  initArgs a{};
  a.type = INIT_ARGS;
  for (int m = 0; m < 4; ++m) {
    for (int i = 0; i < 16; ++i) {
      a.be_gid[m][i] = static_cast<uint8_t>(0x10 * m + i);
      a.fe_gid[m][i] = static_cast<uint8_t>(0xf0 - 0x10 * m + i);
    }
    a.fe_mac[m] = 0xfe0000000000ull + static_cast<uint64_t>(m + 1);
    a.be_mac[m] = 0xbe0000000000ull + static_cast<uint64_t>(m + 1);
    a.vaddr[m] = 0x7f0000000000ull + 0x1000ull * static_cast<uint64_t>(m);
    a.rkey[m] = 0xabc0u + static_cast<uint32_t>(m);
    a.qpn[m] = 0x100u + static_cast<uint32_t>(m);
  }
  a.bufferSize = 1u << 30;
  return a;
}

RecordReply default_reply(const Record& request)
{
  switch (request[0]) {
  case ACQUIRE_STATUS: {
    acqStatusArgs s{};
    s.type = ACQUIRE_STATUS;
    s.noOfFrames[0] = 10;
    s.done = 1;
    return RecordReply::of(s);
  }
  case SAVE_STATUS:
  case ABORT_SAVE: {
    saveStatusArgs s{};
    s.type = SAVE_STATUS;
    s.done = DONE;
    s.savedFrameNum = 10;
    s.savedAquisitionNum = 1;
    return RecordReply::of(s);
  }
  default:
    return RecordReply::ack();
  }
}

ShmNamesLock::ShmNamesLock() : fd_(open("/tmp/varkel-shm-names.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0666))
{
  held_ = fd_ >= 0 && flock(fd_, LOCK_EX) == 0;
}

ShmNamesLock::~ShmNamesLock()
{
  if (fd_ >= 0)
    close(fd_); // releases the lock
}

FakeDataServer::FakeDataServer(Handler handler)
    : handler_(std::move(handler)), greeting_(sample_init_args()),
      server_(std::make_unique<LoopbackServer>([this](int fd) { serve(fd); }))
{
}

FakeDataServer::~FakeDataServer() { server_->stop(); }

void FakeDataServer::set_handler(Handler handler)
{
  std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
}

void FakeDataServer::set_greeting(const initArgs& args, Trigger trigger)
{
  std::lock_guard lock(mutex_);
  greeting_ = args;
  greeting_trigger_ = trigger;
}

void FakeDataServer::set_reply_window(std::chrono::microseconds window)
{
  std::lock_guard lock(mutex_);
  window_ = window;
}

void FakeDataServer::set_recording(bool on)
{
  std::lock_guard lock(mutex_);
  recording_ = on;
}

std::vector<Record> FakeDataServer::requests() const
{
  std::lock_guard lock(mutex_);
  return requests_;
}

std::size_t FakeDataServer::request_count() const
{
  std::lock_guard lock(mutex_);
  return count_;
}

std::vector<Record> FakeDataServer::handshake_acks() const
{
  std::lock_guard lock(mutex_);
  return acks_;
}

int FakeDataServer::overlaps() const
{
  std::lock_guard lock(mutex_);
  return overlaps_;
}

bool FakeDataServer::wait_for_requests(std::size_t n, std::chrono::milliseconds timeout) const
{
  std::unique_lock lock(mutex_);
  return arrived_.wait_for(lock, timeout, [&] { return count_ >= n; });
}

bool FakeDataServer::wait_for_acks(std::size_t n, std::chrono::milliseconds timeout) const
{
  std::unique_lock lock(mutex_);
  return arrived_.wait_for(lock, timeout, [&] { return acks_.size() >= n; });
}

void FakeDataServer::answer(int fd, const RecordReply& reply)
{
  Record record = reply.record;
  switch (reply.trigger) {
  case Trigger::none:
    send_all(fd, record.data(), record.size());
    break;
  case Trigger::short_record:
    send_all(fd, record.data(), record.size() - 1);
    shutdown(fd, SHUT_WR);
    break;
  case Trigger::oversized_record: {
    std::array<uint8_t, 800> both;
    std::memcpy(both.data(), record.data(), record.size());
    std::memset(both.data() + record.size(), 0xEE, record.size());
    send_all(fd, both.data(), both.size());
    break;
  }
  case Trigger::wrong_type:
    record[0] = kWrongType;
    send_all(fd, record.data(), record.size());
    break;
  case Trigger::close:
    shutdown(fd, SHUT_WR);
    break;
  case Trigger::reset:
    arm_reset(fd); // the close when the session returns sends the reset
    break;
  case Trigger::silence:
    break;
  }
}

void FakeDataServer::serve(int fd)
{
  initArgs greeting;
  Trigger trigger;
  {
    std::lock_guard lock(mutex_);
    greeting = greeting_;
    trigger = greeting_trigger_;
  }
  answer(fd, RecordReply::of(greeting, trigger));
  if (trigger == Trigger::close || trigger == Trigger::reset || trigger == Trigger::short_record)
    return;

  Record record;
  if (trigger == Trigger::none) {
    if (!read_record(fd, record))
      return;
    {
      std::lock_guard lock(mutex_);
      acks_.push_back(record);
    }
    arrived_.notify_all();
  }
  while (read_record(fd, record)) {
    Handler handler;
    std::chrono::microseconds window;
    {
      std::lock_guard lock(mutex_);
      ++count_;
      if (recording_)
        requests_.push_back(record);
      handler = handler_;
      window = window_;
    }
    arrived_.notify_all();
    const RecordReply reply = handler ? handler(record) : default_reply(record);
    if (window.count() > 0) {
      // Nothing may arrive while the reply is owed: the library waits for it.
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(window).count())) > 0) {
        std::lock_guard lock(mutex_);
        ++overlaps_;
      }
    }
    answer(fd, reply);
    if (reply.trigger == Trigger::close || reply.trigger == Trigger::reset || reply.trigger == Trigger::short_record)
      return;
  }
}

} // namespace varkel::testing
