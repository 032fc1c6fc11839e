#include "simulator.hpp"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <pthread.h>
#include <stdexcept>
#include <utility>

#include "controller.hpp"
#include "data_server.hpp"
#include "json_rpc_server.hpp"

namespace varkel::sim {

struct Simulator::Servers {
  std::vector<std::unique_ptr<JsonRpcServer>> modules;
  std::unique_ptr<std::atomic<uint64_t>[]> commands;
  std::unique_ptr<DataServer> data;
};

namespace {

// The server threads inherit the creating thread's signal mask: keep the
// process's signals (the acquisition timer's SIGALRM above all) for its own threads.
class BlockSignals {
public:
  BlockSignals()
  {
    sigset_t set;
    sigemptyset(&set);
    for (int s : {SIGALRM, SIGINT, SIGTERM, SIGHUP, SIGPIPE})
      sigaddset(&set, s);
    pthread_sigmask(SIG_BLOCK, &set, &saved_);
  }
  ~BlockSignals() { pthread_sigmask(SIG_SETMASK, &saved_, nullptr); }

private:
  sigset_t saved_;
};

// Runs `start`, turning a failure to listen into a message that names the address.
template <typename Start> void listening(const std::string& host, uint16_t port, Start&& start)
{
  try {
    start();
  } catch (const std::runtime_error& e) {
    const int err = errno;
    throw std::runtime_error("cannot listen on " + host + ":" + std::to_string(port) + ": " + e.what() + ": " +
                             std::strerror(err));
  }
}

} // namespace

Simulator::Simulator(Options options) : options_(std::move(options))
{
  world_ = std::make_unique<World>(options_.model, options_.missing);
  servers_ = std::make_unique<Servers>();
  const int n = world_->geo.modules;
  servers_->commands = std::make_unique<std::atomic<uint64_t>[]>(static_cast<std::size_t>(n));
  BlockSignals blocked;
  for (int m = 0; m < n; ++m) {
    const uint16_t port = options_.port ? static_cast<uint16_t>(options_.port + m) : 0;
    JsonRpcServer::Log log;
    if (options_.verbose)
      log = [m, t0 = Clock::now()](const std::string& command, const std::string& reply) {
        const double at = std::chrono::duration<double>(Clock::now() - t0).count();
        std::printf("%10.3f module %d: %s -> %s\n", at, m + 1, command.c_str(), reply.c_str());
        std::fflush(stdout);
      };
    auto handler = [this, m](const Call& call) {
      servers_->commands[m].fetch_add(1);
      return run_command(*world_, m, call);
    };
    listening(options_.host, port, [&] {
      servers_->modules.push_back(
          std::make_unique<JsonRpcServer>(handler, options_.latency, options_.host.c_str(), port, log));
    });
  }
  listening(options_.host, options_.data_port,
            [&] { servers_->data = std::make_unique<DataServer>(*world_, options_.host.c_str(), options_.data_port); });
  // Only once every port is taken: a simulator that cannot start leaves another's segment alone.
  if (options_.publish_frame) {
    std::lock_guard lock(world_->mutex);
    world_->publish_frames(options_.shm_name);
  }
}

Simulator::~Simulator()
{
  // Servers first: their sessions use the world.
  for (auto& s : servers_->modules)
    s->stop();
  servers_->data->stop();
  servers_.reset();
  world_.reset();
}

int Simulator::modules() const { return world_->geo.modules; }
uint16_t Simulator::module_port(int module) const { return servers_->modules.at(module - 1)->port(); }
uint16_t Simulator::data_port() const { return servers_->data->port(); }
std::string Simulator::segment_name() const { return world_->segment ? world_->segment->name() : std::string(); }

std::span<const int32_t> Simulator::frame() const
{
  if (!world_->segment)
    return {};
  std::span<const int32_t> all = std::as_const(*world_->segment).pixels();
  return all.first(static_cast<std::size_t>(world_->geo.frame_pixels()));
}

ModuleView Simulator::module(int module) const
{
  std::lock_guard lock(world_->mutex);
  const int m = module - 1;
  const Module& mod = world_->modules.at(m);
  const auto now = Clock::now();
  ModuleView v;
  v.link_up = mod.link_up;
  v.exposure_us = mod.exposure_us;
  v.period_us = mod.period_us;
  v.exposures = mod.exposures;
  v.trigger_mode = mod.trigger_mode;
  v.trigger_out = mod.trigger_out;
  v.acquiring = world_->acquiring(m, now);
  v.exposures_taken = world_->exposures_taken(m, now);
  v.frames_delivered = world_->frames_delivered(m, now);
  for (int b = 0; b < world_->geo.boards; ++b)
    for (int c = 0; c < kPositionsPerBoard; ++c)
      if (mod.chips[b][c].efuse != 0 && !mod.chips[b][c].live())
        v.chips_off.push_back((2 - b) * 12 + c + 1);
  v.bias_levels = mod.bias_levels;
  return v;
}

uint64_t Simulator::commands(int module) const { return servers_->commands[module - 1].load(); }

} // namespace varkel::sim
