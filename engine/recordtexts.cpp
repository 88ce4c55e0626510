#include "engine/recordtexts.h"

namespace Tarvik {

namespace {

constexpr int maxSsidBytes = 32;
constexpr int wepAsciiKeyLength = 5;
constexpr int shortestPassphrase = 8;
constexpr int longestPassphrase = 63;
constexpr int hexKeyLength = 64;
constexpr int maxApnLength = 64;

bool isHex(const QString& text)
{
    for (const QChar c : text) {
        if (!c.isDigit() && !(c.toLower() >= QLatin1Char('a') && c.toLower() <= QLatin1Char('f')))
            return false;
    }
    return true;
}

bool isPrintableAscii(const QString& text)
{
    for (const QChar c : text) {
        if (c.unicode() < 0x20 || c.unicode() > 0x7e)
            return false;
    }
    return true;
}

QString wifiError(const Config::Wifi& wifi)
{
    const int ssidBytes = wifi.ssid.toUtf8().size();
    if (ssidBytes == 0 || ssidBytes > maxSsidBytes)
        return QStringLiteral("ssid must be 1 to %1 bytes").arg(maxSsidBytes);
    const QString& key = wifi.key;
    const bool passphrase = key.size() >= shortestPassphrase && key.size() <= longestPassphrase;
    const bool accepted = key.isEmpty() || (isPrintableAscii(key) && (key.size() == wepAsciiKeyLength || passphrase))
        || (key.size() == hexKeyLength && isHex(key));
    if (!accepted) {
        return QStringLiteral("key must be %1 to %2 printable characters, %3 hexadecimal digits or a WEP key")
            .arg(shortestPassphrase)
            .arg(longestPassphrase)
            .arg(hexKeyLength);
    }
    return {};
}

// NetworkManager takes APNs by the rules of DNS labels.
QString modemError(const Config::Modem& modem)
{
    bool accepted = modem.apn.size() <= maxApnLength;
    for (const QChar c : modem.apn) {
        accepted = accepted && c.unicode() < 0x80
            && (c.isLetterOrNumber() || c == QLatin1Char('.') || c == QLatin1Char('_') || c == QLatin1Char('-'));
    }
    if (!accepted)
        return QStringLiteral("apn must be at most %1 characters of A-Z, a-z, 0-9, '.', '_' and '-'").arg(maxApnLength);
    return {};
}

} // namespace

QString recordTextError(const DeviceRecord& record)
{
    if (const auto* wifi = std::get_if<Config::Wifi>(&record))
        return wifiError(*wifi);
    if (const auto* modem = std::get_if<Config::Modem>(&record))
        return modemError(*modem);
    return {};
}

} // namespace Tarvik
