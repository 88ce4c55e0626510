#pragma once

#include "config/config.h"

namespace Tarvik {

// Why an IPv4 record must not be written, naming the field and its value, or
// an empty text when it may. Addresses, the gateway and the name servers are
// dotted IPv4 addresses or empty, the netmask a contiguous dotted mask or
// empty; the manual method needs an address and a netmask.
QString ipv4ConfigError(const Config::Ipv4Config& ipv4);

} // namespace Tarvik
