// A benchmark peer and the harness that compares two paths against it.
//
// On two cores, the CPU a peer thread happens to run on moves a loopback round
// trip by up to 4x either way. So both paths of a comparison meet one peer
// thread: one poll loop over every connection it accepts. They run in
// alternating blocks, and besides the wall time the harness reports the CPU time
// of the caller's side (the process without the peer thread).
#pragma once

#include <atomic>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

class PollPeer {
public:
  struct Script {
    std::string reply;                    // the answer to every request but the unanswered
    std::chrono::microseconds latency{0}; // before each reply
    std::size_t record_size = 0;          // requests are records of this size; 0: JSON objects
    std::string greeting = {};            // sent on accept
    int unanswered = 0;                   // requests at the start of each connection left unanswered
  };

  explicit PollPeer(Script script);
  ~PollPeer();
  PollPeer(const PollPeer&) = delete;
  PollPeer& operator=(const PollPeer&) = delete;

  uint16_t port() const { return port_; }
  // CPU time the peer thread has used, updated before each batch of replies.
  int64_t cpu_ns() const { return cpu_ns_.load(); }

private:
  void loop();

  Script script_;
  int listen_fd_ = -1;
  int stop_fd_ = -1;
  uint16_t port_ = 0;
  std::atomic<int64_t> cpu_ns_{0};
  std::thread thread_;
};

// A TCP connection to 127.0.0.1:`port`, or -1.
int connect_to(uint16_t port);

// Process CPU time in nanoseconds.
int64_t process_cpu_ns();

// Runs `a` and `b` (one operation each, false on failure) in blocks of `block`
// operations, alternating, the two taking turns at going first. Reports per
// operation the wall time and the caller's CPU time of each (`<name>_us`,
// `<name>_cpu_us`) and the ratios a / b of both.
template <typename A, typename B>
void compare(benchmark::State& state, const PollPeer& peer, int block, const std::string& a_name, A&& a,
             const std::string& b_name, B&& b)
{
  struct Path {
    int64_t wall_ns = 0, cpu_ns = 0, ops = 0;
  } pa, pb;
  const auto run = [&](auto&& op, Path& path) {
    const auto start = std::chrono::steady_clock::now();
    const int64_t cpu = process_cpu_ns() - peer.cpu_ns();
    for (int i = 0; i < block; ++i) {
      if (!op())
        return false;
    }
    path.cpu_ns += process_cpu_ns() - peer.cpu_ns() - cpu;
    path.wall_ns += std::chrono::nanoseconds(std::chrono::steady_clock::now() - start).count();
    path.ops += block;
    return true;
  };
  bool a_first = true;
  for (auto _ : state) {
    const bool ok = a_first ? run(a, pa) && run(b, pb) : run(b, pb) && run(a, pa);
    if (!ok) {
      state.SkipWithError("an operation failed");
      return;
    }
    a_first = !a_first;
  }
  const auto per_op_us = [](int64_t ns, int64_t ops) { return ops > 0 ? ns / 1e3 / static_cast<double>(ops) : 0.0; };
  state.counters[a_name + "_us"] = per_op_us(pa.wall_ns, pa.ops);
  state.counters[a_name + "_cpu_us"] = per_op_us(pa.cpu_ns, pa.ops);
  state.counters[b_name + "_us"] = per_op_us(pb.wall_ns, pb.ops);
  state.counters[b_name + "_cpu_us"] = per_op_us(pb.cpu_ns, pb.ops);
  state.counters["wall_ratio"] = pb.wall_ns > 0 ? static_cast<double>(pa.wall_ns) / static_cast<double>(pb.wall_ns) : 0;
  state.counters["cpu_ratio"] = pb.cpu_ns > 0 ? static_cast<double>(pa.cpu_ns) / static_cast<double>(pb.cpu_ns) : 0;
}
