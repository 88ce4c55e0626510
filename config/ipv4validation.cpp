#include "config/ipv4validation.h"

#include "vocabulary/clienttext.h"

#include <QRegularExpression>

namespace Tarvik {

namespace {

// Four decimal numbers of 0 to 255, no leading zeros, nothing around them. The end is \z: $ also
// matches before a final newline, and "10.0.0.1\n" passed (found by fuzz/fuzz_command_intake).
bool isDottedAddress(const QString& text)
{
    static const QRegularExpression dotted(
        QStringLiteral("^(25[0-5]|2[0-4][0-9]|1[0-9][0-9]|[1-9]?[0-9])(\\.(25[0-5]|2[0-4][0-9]|1[0-9][0-9]|[1-9]?[0-9])){3}\\z"));
    return dotted.match(text).hasMatch();
}

quint32 addressValue(const QString& text)
{
    quint32 value = 0;
    for (const QString& part : text.split(QLatin1Char('.'))) {
        value = (value << 8) | part.toUInt();
    }
    return value;
}

// Ones from the top, then zeros only; a mask of no bits at all masks nothing.
bool isContiguousMask(const QString& text)
{
    if (!isDottedAddress(text)) {
        return false;
    }
    const quint32 mask = addressValue(text);
    return mask != 0 && (mask | (mask - 1)) == 0xffffffffu;
}

QString invalid(const char* field, const QString& value, const char* expected)
{
    return QStringLiteral("Invalid %1: %2 is not %3").arg(QLatin1String(field), clientText(value), QLatin1String(expected));
}

} // namespace

QString ipv4ConfigError(const Config::Ipv4Config& ipv4)
{
    const struct {
        const char* field;
        const QString& value;
    } addresses[] = {{"address", ipv4.address}, {"gateway", ipv4.gateway}, {"dns0", ipv4.dns0}, {"dns1", ipv4.dns1}};
    for (const auto& address : addresses) {
        if (!address.value.isEmpty() && !isDottedAddress(address.value)) {
            return invalid(address.field, address.value, "a dotted IPv4 address");
        }
    }
    if (!ipv4.netmask.isEmpty() && !isContiguousMask(ipv4.netmask)) {
        return invalid("netmask", ipv4.netmask, "a contiguous dotted mask");
    }
    if (ipv4.method == QLatin1String("manual")) {
        for (const auto& [field, value] : {std::pair<const char*, QString>{"address", ipv4.address},
                                           std::pair<const char*, QString>{"netmask", ipv4.netmask}}) {
            if (value.isEmpty()) {
                return QStringLiteral("Missing %1: the manual method needs an address and a netmask")
                    .arg(QLatin1String(field));
            }
        }
    }
    return QString();
}

} // namespace Tarvik
