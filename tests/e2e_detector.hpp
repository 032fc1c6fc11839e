// A library handle driving a simulator of the same model in this process: the
// shared set-up of the end-to-end tests.
#pragma once

#include <chrono>
#include <thread>
#include <vector>

#include "fake_data_server.hpp"
#include "simulator.hpp"
#include "varkel.h"

namespace varkel::e2e {

using namespace std::chrono_literals;

inline sim::Options model(varkel_detector_model_t m)
{
  sim::Options o;
  o.model = m;
  return o;
}

struct Detector {
  explicit Detector(sim::Options o) : sim(o), v(varkel_new(o.model)) { v->simulate = 1; }
  ~Detector() { varkel_delete(v); }
  Detector(const Detector&) = delete;
  Detector& operator=(const Detector&) = delete;

  int connect_backend() { return varkel_connect_backend(v, "127.0.0.1", sim.data_port()); }

  int connect_modules()
  {
    std::vector<const char*> hosts(static_cast<std::size_t>(sim.modules()), "127.0.0.1");
    std::vector<uint16_t> ports;
    for (int m = 1; m <= sim.modules(); ++m)
      ports.push_back(sim.module_port(m));
    return varkel_connect(v, hosts.data(), ports.data());
  }

  int connect()
  {
    const int rc = connect_backend();
    return rc != 0 ? rc : connect_modules();
  }

  // Acquisition parameters on every module; module 1 leads, the others follow its
  // shutter output.
  int configure(float exposure, float period, int exposures)
  {
    return set_acquireTime(v, exposure) | set_periodTime(v, period) | set_numberExposures(v, exposures) |
           define_master_module(v, 1, false, VARKEL_TRIGGER_MODE_EXTERNAL_POS_EDGE);
  }

  // execute_acquire, then status_acquire until the controller reports it done.
  int acquire()
  {
    if (int rc = execute_acquire(v); rc != 0)
      return rc;
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (status_acquire(v) != DONE_ACQ) {
      if (std::chrono::steady_clock::now() > deadline)
        return -100;
      std::this_thread::sleep_for(1ms);
    }
    return 0;
  }

  // The simulator publishes its frame under the fixed segment names, which tests
  // of other build directories may be using at the same time.
  testing::ShmNamesLock names;
  sim::Simulator sim;
  varkel_t* v;
};

} // namespace varkel::e2e
