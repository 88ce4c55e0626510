#include "ipc/brokerroute.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace Tarvik {
namespace BrokerRoute {

namespace {

socklen_t toSockaddr(const QHostAddress& address, quint16 port, sockaddr_storage* out)
{
    std::memset(out, 0, sizeof(*out));
    if (address.protocol() == QAbstractSocket::IPv4Protocol) {
        auto* in = reinterpret_cast<sockaddr_in*>(out);
        in->sin_family = AF_INET;
        in->sin_port = htons(port);
        in->sin_addr.s_addr = htonl(address.toIPv4Address());
        return sizeof(sockaddr_in);
    }
    if (address.protocol() == QAbstractSocket::IPv6Protocol) {
        auto* in6 = reinterpret_cast<sockaddr_in6*>(out);
        in6->sin6_family = AF_INET6;
        in6->sin6_port = htons(port);
        const Q_IPV6ADDR bytes = address.toIPv6Address();
        std::memcpy(&in6->sin6_addr, bytes.c, sizeof(bytes.c));
        in6->sin6_scope_id = address.scopeId().toUInt();
        return sizeof(sockaddr_in6);
    }
    return 0;
}

} // namespace

Ends ofSocket(int socket)
{
    Ends ends;
    if (socket < 0)
        return ends;
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    if (::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) == 0)
        ends.local = QHostAddress(reinterpret_cast<const sockaddr*>(&address));
    length = sizeof(address);
    if (::getpeername(socket, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        ends.peer = QHostAddress(reinterpret_cast<const sockaddr*>(&address));
        ends.peerPort = address.ss_family == AF_INET6 ? ntohs(reinterpret_cast<sockaddr_in6*>(&address)->sin6_port)
                                                      : ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);
    }
    return ends;
}

QHostAddress sourceFor(const QHostAddress& peer, quint16 port)
{
    sockaddr_storage to{};
    const socklen_t length = toSockaddr(peer, port, &to);
    if (length == 0)
        return {};
    // Connecting a datagram socket sends nothing: it only asks the routing table.
    const int probe = ::socket(to.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe < 0)
        return {};
    QHostAddress source;
    sockaddr_storage from{};
    socklen_t fromLength = sizeof(from);
    if (::connect(probe, reinterpret_cast<const sockaddr*>(&to), length) == 0
        && ::getsockname(probe, reinterpret_cast<sockaddr*>(&from), &fromLength) == 0)
        source = QHostAddress(reinterpret_cast<const sockaddr*>(&from));
    ::close(probe);
    return source;
}

} // namespace BrokerRoute
} // namespace Tarvik
