// A handle whose module channels are connected to fake controllers, one per
// module, the main channel on the last module (as after connecting).
#pragma once

#include <condition_variable>

#include "fake_controller.hpp"
#include "varkel.h"

namespace varkel::testing {

// Holds each request handed to arrive() until `expected` have arrived: requests
// sent one after the other would stall here, and `stalled` tells so (after 5 s).
struct Rendezvous {
  explicit Rendezvous(int n) : expected(n) {}
  void arrive()
  {
    std::unique_lock lock(mutex);
    ++arrived;
    all_there.notify_all();
    stalled |= !all_there.wait_for(lock, std::chrono::seconds(5), [&] { return arrived >= expected; });
  }
  const int expected;
  int arrived = 0;
  bool stalled = false;
  std::mutex mutex;
  std::condition_variable all_there;
};

class FakeDetector {
public:
  explicit FakeDetector(varkel_detector_model_t model);
  ~FakeDetector();
  FakeDetector(const FakeDetector&) = delete;
  FakeDetector& operator=(const FakeDetector&) = delete;

  varkel_t* handle() const { return v_; }
  // Fake of module m (1-based).
  FakeController& module(int m) { return *fakes_.at(static_cast<std::size_t>(m - 1)); }
  int modules() const { return static_cast<int>(fakes_.size()); }
  // Connects every module again through the library (varkel_connect): module m
  // to ports[m - 1] where that is given and not 0, else to its fake.
  int connect(std::vector<uint16_t> ports = {});
  // Sets the same handler on every module's fake.
  void answer_all(const FakeController::Handler& handler);
  // Commands each module received, in order ("Method p1 p2"), as "m:command".
  std::vector<std::string> all_commands() const;
  void clear();

private:
  varkel_t* v_ = nullptr;
  std::vector<std::unique_ptr<FakeController>> fakes_;
};

} // namespace varkel::testing
