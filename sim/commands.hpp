// What the controller's command handlers share: the context a handler works on
// and the helpers that read parameters and build answers. Each family of commands
// is a table of handlers; controller.cpp holds the first, the other families
// have a source file of their own.
#pragma once

#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <span>
#include <string>
#include <string_view>

#include "json_rpc_server.hpp"
#include "world.hpp"

namespace varkel::sim {

using Params = std::span<const std::string>;

// What a handler works on: the module it was sent to, the world around it, and
// the time the request arrived.
struct Ctx {
  World& world;
  Module& mod;
  int m;
  Clock::time_point now;
};

using Handler = Answer (*)(Ctx&, Params);

inline std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
inline std::string format(const char* fmt, ...)
{
  char buf[256];
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(buf, sizeof buf, fmt, args);
  va_end(args);
  return buf;
}

inline Answer invalid(const std::string& why) { return Answer::error(kInvalidParams, "Invalid params: " + why); }

// A whole parameter as an unsigned decimal number.
template <typename T> bool number(const std::string& text, T& out)
{
  const char* end = text.data() + text.size();
  auto [p, ec] = std::from_chars(text.data(), end, out, 10);
  return !text.empty() && ec == std::errc() && p == end;
}

inline Answer expect_none(Params p, Answer answer) { return p.empty() ? answer : invalid("expected no parameters"); }

inline Chip& selected_chip(Ctx& c) { return c.mod.chips[c.mod.board][c.mod.chip]; }

// The DAC, bias and analogue-monitor commands (dac_commands.cpp): the handler
// of `method`, or nullptr when it is not one of them.
Handler dac_command(std::string_view method);
// The temperature commands (temperature_commands.cpp), likewise.
Handler temperature_command(std::string_view method);

} // namespace varkel::sim
