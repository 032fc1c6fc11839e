// HOST:PORT addresses of modules and data servers given on a command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace varkel::tools {

struct Endpoint {
  std::string host;
  uint16_t port = 0;
};

// "HOST:PORT" with a port 1..65535; nullopt for anything else.
std::optional<Endpoint> parse_endpoint(const std::string& text);

} // namespace varkel::tools
