#include "vocabulary/devicestate.h"
#include "vocabulary/tablelookup.h"

namespace Tarvik {

DeviceState mapDeviceState(NetworkManager::Device::State state)
{
    using NM = NetworkManager::Device;
    static const QMap<int, DeviceState> table {
        { NM::UnknownState, Unavailable },
        { NM::Unmanaged, Unavailable },
        { NM::Unavailable, Unavailable },
        { NM::Disconnected, Disconnected },
        { NM::Preparing, Connecting },
        { NM::ConfiguringHardware, Connecting },
        { NM::NeedAuth, Connecting },
        { NM::ConfiguringIp, Connecting },
        { NM::CheckingIp, Connecting },
        { NM::WaitingForSecondaries, Connecting },
        { NM::Activated, Connected },
        { NM::Deactivating, Disconnecting },
        // A failed device cannot carry traffic: clients see it as unavailable.
        { NM::Failed, Unavailable },
    };
    return lookup(table, int(state), Unavailable);
}

QString deviceStateToString(DeviceState state)
{
    static const QMap<int, QString> table {
        { Unavailable, "Unavailable" },
        { Disconnected, "Disconnected" },
        { Disconnecting, "Disconnecting" },
        { Connecting, "Connecting" },
        { Connected, "Connected" },
    };
    return lookup(table, int(state), QString("unknown"));
}

} // namespace Tarvik
