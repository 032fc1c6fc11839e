#include "fake_detector.hpp"

#include <cstdio>
#include <stdexcept>
#include <unistd.h>

namespace varkel::testing {

FakeDetector::FakeDetector(varkel_detector_model_t model)
{
  v_ = varkel_new(model);
  for (int m = 0; m < v_->max_num_modules; ++m) {
    fakes_.push_back(std::make_unique<FakeController>());
    v_->fd[m] = connect_loopback(fakes_.back()->port());
    if (v_->fd[m] <= 0)
      throw std::runtime_error("cannot connect to the fake controller");
  }
  v_->varkel_interface = v_->fd[v_->max_num_modules - 1];
  v_->varkel_module = v_->max_num_modules;
}

FakeDetector::~FakeDetector() { varkel_delete(v_); }

int FakeDetector::connect(std::vector<uint16_t> ports)
{
  ports.resize(fakes_.size());
  for (std::size_t m = 0; m < fakes_.size(); ++m)
    ports[m] = ports[m] != 0 ? ports[m] : fakes_[m]->port();
  const std::vector<const char*> hosts(fakes_.size(), "127.0.0.1");
  return varkel_connect(v_, hosts.data(), ports.data());
}

void FakeDetector::answer_all(const FakeController::Handler& handler)
{
  for (auto& f : fakes_)
    f->set_handler(handler);
}

std::vector<std::string> FakeDetector::all_commands() const
{
  std::vector<std::string> out;
  for (std::size_t m = 0; m < fakes_.size(); ++m)
    for (const auto& c : fakes_[m]->commands())
      out.push_back(std::to_string(m + 1) + ":" + c);
  return out;
}

void FakeDetector::clear()
{
  for (auto& f : fakes_)
    f->clear();
}

} // namespace varkel::testing
