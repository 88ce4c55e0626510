#include "engine/engine.h"

#include "config/ipv4validation.h"

namespace Tarvik {

namespace {

QString text(const QJsonObject& payload, const char* key)
{
    return payload.value(QLatin1String(key)).toString();
}

// Absent keys clear the field on purpose: a set command carries the whole addressing.
Config::Ipv4Config ipv4Of(const QJsonObject& payload)
{
    Config::Ipv4Config ipv4;
    ipv4.method = text(payload, "method");
    ipv4.address = text(payload, "address");
    ipv4.netmask = text(payload, "netmask");
    ipv4.gateway = text(payload, "gateway");
    ipv4.dns0 = text(payload, "dns0");
    ipv4.dns1 = text(payload, "dns1");
    return ipv4;
}

} // namespace

bool Engine::acceptIpv4(const Config::Ipv4Config& ipv4, const QString& errorCommand)
{
    const QString error = ipv4ConfigError(ipv4);
    if (error.isEmpty())
        return true;
    log(Log::Error, "Configuration refused: %s", error.toLocal8Bit().constData());
    m_ipc->publishError(errorCommand, error);
    return false;
}

// The Ethernet and Wi-Fi commands have always answered their errors under the
// name of the get command; clients rely on it.

void Engine::processEthernetConfigSetCommand(const QJsonObject& payload)
{
    const QString errorCommand = QStringLiteral("ethernet/config/get");
    const auto device = findRequestedDevice(payload, NetworkManager::Device::Ethernet, errorCommand);
    Config::Ethernet ethernet = m_config->ethernet();
    ethernet.ipv4 = ipv4Of(payload);
    if (!device || !acceptIpv4(ethernet.ipv4, errorCommand))
        return;
    m_config->setEthernet(ethernet);
    updateConnection(device, *m_config);
}

void Engine::processWifiConfigSetCommand(const QJsonObject& payload)
{
    const QString errorCommand = QStringLiteral("wifi/config/get");
    const auto device = findRequestedDevice(payload, NetworkManager::Device::Wifi, errorCommand);
    Config::Wifi wifi = m_config->wifi();
    wifi.ipv4 = ipv4Of(payload);
    wifi.ssid = text(payload, "ssid");
    wifi.key = text(payload, "key");
    if (!device || !acceptIpv4(wifi.ipv4, errorCommand))
        return;
    m_config->setWifi(wifi);
    updateConnection(device, *m_config);
}

void Engine::processModemConfigSetCommand(const QJsonObject& payload)
{
    const QString errorCommand = QStringLiteral("modem/config/set");
    const auto device = findRequestedDevice(payload, NetworkManager::Device::Modem, errorCommand);
    Config::Modem modem = m_config->modem();
    modem.ipv4 = ipv4Of(payload);
    modem.apn = text(payload, "apn");
    modem.username = text(payload, "username");
    modem.password = text(payload, "password");
    modem.networkId = text(payload, "networkId");
    modem.pin = text(payload, "pin");
    if (!device || !acceptIpv4(modem.ipv4, errorCommand))
        return;
    m_config->setModem(modem);
    updateConnection(device, *m_config);
}

} // namespace Tarvik
