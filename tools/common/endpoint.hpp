// HOST:PORT addresses of modules and data servers given on a command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace varkel::tools {

struct Endpoint {
  std::string host;
  uint16_t port = 0;
};

// "HOST:PORT" with a port 1..65535; nullopt for anything else.
std::optional<Endpoint> parse_endpoint(const std::string& text);

// Modules' addresses as the library's connection calls take them: valid while the
// endpoints they were made from live.
struct AddressLists {
  explicit AddressLists(const std::vector<Endpoint>& modules);
  std::vector<const char*> hosts;
  std::vector<uint16_t> ports;
};

} // namespace varkel::tools
