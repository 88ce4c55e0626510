#pragma once

#include "config/config.h"

#include <variant>

namespace Tarvik {

// The configuration record of one kind of device.
using DeviceRecord = std::variant<Config::Ethernet, Config::Wifi, Config::Modem>;

inline const Config::Ipv4Config& ipv4Of(const DeviceRecord& record)
{
    return std::visit([](const auto& fields) -> const Config::Ipv4Config& { return fields.ipv4; }, record);
}

} // namespace Tarvik
