#include "common/endpoint.hpp"

#include <cstdlib>

namespace varkel::tools {

std::optional<Endpoint> parse_endpoint(const std::string& text)
{
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0)
    return std::nullopt;
  char* end = nullptr;
  const unsigned long port = std::strtoul(text.c_str() + colon + 1, &end, 10);
  if (end == text.c_str() + colon + 1 || *end != '\0' || port == 0 || port > 65535)
    return std::nullopt;
  return Endpoint{text.substr(0, colon), static_cast<uint16_t>(port)};
}

AddressLists::AddressLists(const std::vector<Endpoint>& modules)
{
  for (const Endpoint& e : modules) {
    hosts.push_back(e.host.c_str());
    ports.push_back(e.port);
  }
}

} // namespace varkel::tools
