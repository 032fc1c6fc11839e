#include "fake_data_server.hpp"

#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/file.h>
#include <sys/socket.h>
#include <unistd.h>

namespace varkel::testing {

namespace {

bool read_record(int fd, Record& out) { return loopback::receive_all(fd, out.data(), out.size()); }

// Puts `reply` on the wire; false when it ends the connection.
bool answer(int fd, const RecordReply& reply, const std::function<void()>& between_parts)
{
  using Mode = loopback::Delivery::Mode;
  std::string bytes(reply.record.begin(), reply.record.end());
  loopback::Delivery d;
  const Trigger t = reply.trigger;
  if (t == Trigger::wrong_type)
    bytes[0] = 4;
  if (t == Trigger::oversized_record)
    bytes.append(400, '\xEE');
  if (t == Trigger::split_record) {
    loopback::send_all(fd, bytes.data(), 200);
    if (between_parts)
      between_parts();
    return loopback::send_all(fd, bytes.data() + 200, bytes.size() - 200);
  }
  if (t == Trigger::short_record) {
    bytes.pop_back();
    loopback::deliver(fd, bytes.data(), bytes.size(), d);
    return false;
  }
  if (t == Trigger::split)
    d = {Mode::split, {}, 100, std::chrono::milliseconds(100)};
  const std::pair<Trigger, Mode> modes[] = {{Trigger::drip, Mode::bytewise},
                                            {Trigger::silence, Mode::silence},
                                            {Trigger::close, Mode::close},
                                            {Trigger::reset, Mode::reset}};
  for (const auto& [trigger, mode] : modes)
    if (t == trigger)
      d.mode = mode;
  return loopback::deliver(fd, bytes.data(), bytes.size(), d);
}

RecordReply default_reply(const Record& request)
{
  if (request[0] == SAVE_STATUS || request[0] == ABORT_SAVE)
    return RecordReply::of(saveStatusArgs{SAVE_STATUS, DONE, {}, 10, 1, {}});
  return RecordReply::ack();
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
    a.fe_mac[m] = 0xfe0000000001ull + static_cast<uint64_t>(m);
    a.be_mac[m] = 0xbe0000000001ull + static_cast<uint64_t>(m);
    a.vaddr[m] = 0x7f0000000000ull + 0x1000ull * static_cast<uint64_t>(m);
    a.rkey[m] = 0xabc0u + static_cast<uint32_t>(m);
    a.qpn[m] = 0x100u + static_cast<uint32_t>(m);
  }
  a.bufferSize = 1u << 30;
  return a;
}

ShmNamesLock::ShmNamesLock() : fd(open("/tmp/varkel-shm-names.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0666))
{
  if (fd >= 0 && flock(fd, LOCK_EX) != 0) {
    close(fd);
    fd = -1;
  }
}

ShmNamesLock::~ShmNamesLock() { close(fd); }

FakeDataServer::FakeDataServer(Handler handler)
    : handler_(handler ? std::move(handler) : Handler(default_reply)), server_([this](int fd) { serve(fd); })
{
}

std::vector<Record> FakeDataServer::acks(std::size_t n) const
{
  std::unique_lock lock(mutex_);
  acked_.wait_for(lock, std::chrono::seconds(5), [&] { return acks_.size() >= n; });
  return acks_;
}

std::vector<Record> FakeDataServer::requests() const
{
  std::lock_guard lock(mutex_);
  return requests_;
}

void FakeDataServer::serve(int fd)
{
  const Trigger greeting = greeting_;
  Record record;
  if (!answer(fd, RecordReply::of(sample_init_args(), greeting), between_parts_) || !read_record(fd, record))
    return;
  {
    std::lock_guard lock(mutex_);
    acks_.push_back(record);
  }
  acked_.notify_all();
  while (read_record(fd, record)) {
    {
      std::lock_guard lock(mutex_);
      requests_.push_back(record);
    }
    RecordReply reply = handler_(record);
    if (spoiled_ != Trigger::none)
      reply.trigger = spoiled_;
    // Nothing may arrive while the reply is owed: the library waits for it.
    pollfd p{fd, POLLIN, 0};
    if (window_ms_ > 0 && poll(&p, 1, window_ms_) > 0)
      ++overlaps_;
    if (!answer(fd, reply, between_parts_))
      return;
  }
}

} // namespace varkel::testing
