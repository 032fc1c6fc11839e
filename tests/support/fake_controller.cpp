#include "fake_detector.hpp"

#include <stdexcept>
#include <unistd.h>

#include "ethernet.h"

namespace varkel::testing {

namespace {

using Mode = sim::Delivery::Mode;

Reply as_reply(sim::Answer a, Mode action = Mode::whole)
{
  Reply r{std::move(a)};
  r.action = action;
  return r;
}

} // namespace

Reply Reply::result(const std::string& text) { return as_reply(sim::Answer::result(text)); }
Reply Reply::error(const std::string& message) { return as_reply(sim::Answer::error(sim::kMethodNotFound, message)); }
Reply Reply::raw(std::string text) { return as_reply(verbatim(std::move(text))); }
Reply Reply::bytewise(std::string text) { return as_reply(verbatim(std::move(text)), Mode::bytewise); }
Reply Reply::split(std::string text, std::size_t at, std::chrono::microseconds tail_delay)
{
  Reply r = as_reply(verbatim(std::move(text)), Mode::split);
  r.delivery.split_at = at;
  r.delivery.tail_delay = tail_delay;
  return r;
}
Reply Reply::close() { return as_reply(verbatim({}), Mode::close); }
Reply Reply::reset() { return as_reply(verbatim({}), Mode::reset); }
Reply Reply::oversize(std::size_t size) { return raw("{\"result\":\"" + std::string(size - 13, 'x') + "\"}"); }
Reply Reply::not_json() { return raw("this is not json"); }

FakeController::FakeController(Handler handler)
    : handler_(std::move(handler)),
      server_(std::make_unique<sim::JsonRpcServer>([this](const Request& r) { return answer(r); },
                                                   std::chrono::microseconds(0), "127.0.0.1", 0))
{
}

FakeController::~FakeController() { server_->stop(); }

void FakeController::set_handler(Handler handler)
{
  std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
}

void FakeController::set_latency(std::chrono::microseconds latency)
{
  std::lock_guard lock(mutex_);
  latency_ = latency;
}

std::vector<Request> FakeController::transcript() const
{
  std::lock_guard lock(mutex_);
  return transcript_;
}

std::vector<std::string> FakeController::commands() const
{
  std::vector<std::string> out;
  for (const auto& r : transcript())
    out.push_back(r.command());
  return out;
}

void FakeController::clear()
{
  std::lock_guard lock(mutex_);
  transcript_.clear();
}

sim::Answer FakeController::answer(const Request& request)
{
  Handler handler;
  std::chrono::microseconds latency;
  {
    std::lock_guard lock(mutex_);
    handler = handler_;
    latency = latency_;
  }
  Reply reply = handler ? handler(request) : Reply::result("OK");
  reply.delivery.mode = reply.action;
  reply.delivery.delay += latency;
  std::lock_guard lock(mutex_);
  transcript_.push_back(request);
  return reply;
}

int connect_loopback(uint16_t port)
{
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd >= 0 && socket_connect(fd, "127.0.0.1", port, VARKEL_MODULE_TIMEOUT_US) == 0)
    return fd;
  ::close(fd); // harmless when there is no socket
  return -1;
}

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
