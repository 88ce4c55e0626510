#pragma once

#include "engine/devicerecord.h"

#include <QString>

namespace Tarvik {

// What NetworkManager would refuse in the texts of a record (an SSID, a key, an APN), said for the client;
// empty when it would take them. A change on trial is checked before anything is touched.
QString recordTextError(const DeviceRecord& record);

} // namespace Tarvik
