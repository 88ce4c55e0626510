#pragma once

namespace Tarvik {

// NetworkManagerQt and ModemManagerQt read their daemon synchronously the first time they are used, and such a
// read starts a daemon that is only activatable: a stopped or masked daemon then holds the whole service for the
// bus's activation timeout. Every use of a library is gated on its daemon having an owner on the bus.
enum class Daemon { NetworkManager, ModemManager };

bool isOnBus(Daemon daemon);
void setOnBus(Daemon daemon, bool onBus);

} // namespace Tarvik
