#include "documents/daemonsonbus.h"

namespace Tarvik {

namespace {
bool networkManagerOnBus = false;
bool modemManagerOnBus = false;

bool& flagOf(Daemon daemon)
{
    return daemon == Daemon::NetworkManager ? networkManagerOnBus : modemManagerOnBus;
}
} // namespace

bool isOnBus(Daemon daemon)
{
    return flagOf(daemon);
}

void setOnBus(Daemon daemon, bool onBus)
{
    flagOf(daemon) = onBus;
}

} // namespace Tarvik
