#pragma once

#include <QHostAddress>

namespace Tarvik {

// What the kernel's routing says of the broker session: a session whose local address is gone (an uplink
// re-activated, often with a new address from the carrier) looks alive until its keep-alive gives up.
namespace BrokerRoute {

// The two ends of a connected socket; null addresses when it has none.
struct Ends {
    QHostAddress local;
    QHostAddress peer;
    quint16 peerPort = 0;
};
Ends ofSocket(int socket);

// The address the kernel would send from to reach the peer now; null when no route leads there.
QHostAddress sourceFor(const QHostAddress& peer, quint16 port);

} // namespace BrokerRoute

} // namespace Tarvik
