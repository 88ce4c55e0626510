// Command intake: an MQTT message as a client may send it, to a parsed command or an error.
// The input is the topic, a NUL byte (which MQTT forbids in topics), then the payload.

#include "config/ipv4validation.h"
#include "fuzzsupport.h"
#include "ipc/commandintake.h"
#include "vocabulary/clienttext.h"

#include <arpa/inet.h>

using FuzzSupport::isPrintable;
using FuzzSupport::require;

namespace {

// Every repeated character may be escaped to four ("\x1b"), then "..." follows the cut.
constexpr int maxRepeatedLength = 4 * Tarvik::maxClientTextLength + 3;
// The longest fixed text around a repeated value, with room to spare.
constexpr int maxErrorLength = maxRepeatedLength + 128;

// The C library's reading of a dotted address, independent of tarvik's own.
bool isDotted(const QString& text, quint32* value = nullptr)
{
    in_addr address{};
    const QByteArray bytes = text.toUtf8();
    if (bytes.contains('\0') || inet_pton(AF_INET, bytes.constData(), &address) != 1)
        return false;
    if (value)
        *value = ntohl(address.s_addr);
    return true;
}

bool isMask(const QString& text)
{
    quint32 mask = 0;
    return isDotted(text, &mask) && mask != 0 && ((~mask + 1) & ~mask) == 0;
}

// What the set commands would write, and whether it ought to pass.
void checkIpv4(const QJsonObject& data)
{
    const auto text = [&data](const char* key) { return data.value(QLatin1String(key)).toString(); };
    const Tarvik::Config::Ipv4Config ipv4{
        text("method"), text("address"), text("netmask"), text("gateway"), text("dns0"), text("dns1")};

    bool valid = ipv4.netmask.isEmpty() || isMask(ipv4.netmask);
    for (const QString& address : {ipv4.address, ipv4.gateway, ipv4.dns0, ipv4.dns1})
        valid = valid && (address.isEmpty() || isDotted(address));
    if (ipv4.method == QLatin1String("manual"))
        valid = valid && !ipv4.address.isEmpty() && !ipv4.netmask.isEmpty();

    const QString error = Tarvik::ipv4ConfigError(ipv4);
    require(error.isEmpty() == valid, "an IPv4 record passes exactly when every field is well formed");
    require(isPrintable(error) && error.size() <= maxErrorLength, "an IPv4 error is printable and bounded");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray input = QByteArray::fromRawData(reinterpret_cast<const char*>(data), int(size));
    const int split = input.indexOf('\0');
    const QString topic = QString::fromUtf8(split < 0 ? input : input.left(split));
    const QByteArray payload = split < 0 ? QByteArray() : input.mid(split + 1);

    const Tarvik::Command command = Tarvik::parseCommand(topic, payload, QStringLiteral("tolv/network"));

    require(isPrintable(command.name) && command.name.size() <= maxRepeatedLength,
            "a command name is printable and bounded");
    require(isPrintable(command.error) && command.error.size() <= maxErrorLength, "an error is printable and bounded");
    if (payload.size() > Tarvik::maxCommandPayloadBytes)
        require(!command.error.isEmpty() && command.data.isEmpty(), "an oversized payload is refused unread");

    const QString interface = Tarvik::clientText(command.data.value(QLatin1String("interface")).toString());
    require(isPrintable(interface) && interface.size() <= maxRepeatedLength, "a repeated name is printable and bounded");

    checkIpv4(command.data);
    return 0;
}
