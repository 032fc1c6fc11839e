// The virtual data server: one TCP connection per client, fixed 400-byte records.
// It sends the RDMA parameters of its end of every module's link on accept, then
// answers one record per request. The frames it "receives" are those the
// simulated modules take while their link is up.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "loopback_server.hpp"
#include "world.hpp"

namespace varkel::sim {

class DataServer {
public:
  DataServer(World& world, const char* host, uint16_t port);
  ~DataServer();

  uint16_t port() const { return server_->port(); }
  void stop() { server_->stop(); }

private:
  void serve(int fd);
  // Each builds the reply record for one request; the world's mutex is held.
  void acquire_args(const uint8_t* request, uint8_t* reply);
  void acquire_status(uint8_t* reply);
  void save_status(uint8_t* reply, bool abort);
  void stop_acquire(uint8_t* reply);
  void geometry(const uint8_t* request, uint8_t* reply);

  struct Counts {
    std::array<uint64_t, 4> frames{};
    std::array<uint64_t, 4> runs{};
  };
  Counts counts_now(Clock::time_point now) const;
  Counts counted(Clock::time_point now) const; // since the last acquisition arguments
  bool all_done(Clock::time_point now) const;

  World& world_;
  acqArgs args_{}; // the last accepted acquisition arguments
  Counts base_;    // what had arrived when they were accepted
  std::optional<Counts> stopped_;
  std::optional<Counts> save_aborted_;
  std::unique_ptr<varkel::loopback::LoopbackServer> server_;
};

} // namespace varkel::sim
