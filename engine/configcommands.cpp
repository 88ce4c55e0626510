#include "engine/engine.h"

namespace Tarvik {

namespace {

QString text(const QJsonObject& payload, const char* key)
{
    return payload.value(QLatin1String(key)).toString();
}

// Absent keys clear the field on purpose: a set command carries the whole addressing.
void readIpv4(const QJsonObject& payload, Config::Ipv4Config& ipv4)
{
    ipv4.method = text(payload, "method");
    ipv4.address = text(payload, "address");
    ipv4.netmask = text(payload, "netmask");
    ipv4.gateway = text(payload, "gateway");
    ipv4.dns0 = text(payload, "dns0");
    ipv4.dns1 = text(payload, "dns1");
}

} // namespace

void Engine::processEthernetConfigSetCommand(const QJsonObject& payload)
{
    const auto device = findRequestedDevice(payload, NetworkManager::Device::Ethernet,
                                            QStringLiteral("ethernet/config/get"));
    if (!device)
        return;
    if (device->type() != NetworkManager::Device::Ethernet) {
        m_ipc->publishError(QStringLiteral("ethernet/config/set"),
                            QStringLiteral("Not an Ethernet device: ") + text(payload, "interface"));
        return;
    }

    Config::Ethernet ethernet = m_config->ethernet();
    readIpv4(payload, ethernet.ipv4);
    m_config->setEthernet(ethernet);
    updateConnection(device, *m_config);
}

void Engine::processWifiConfigSetCommand(const QJsonObject& payload)
{
    const auto device = findRequestedDevice(payload, NetworkManager::Device::Wifi, QStringLiteral("wifi/config/get"));
    if (!device)
        return;
    if (device->type() != NetworkManager::Device::Wifi) {
        m_ipc->publishError(QStringLiteral("wifi/config/set"),
                            QStringLiteral("Not a Wifi device: ") + text(payload, "interface"));
        return;
    }

    Config::Wifi wifi = m_config->wifi();
    readIpv4(payload, wifi.ipv4);
    wifi.ssid = text(payload, "ssid");
    wifi.key = text(payload, "key");
    m_config->setWifi(wifi);
    updateConnection(device, *m_config);
}

void Engine::processModemConfigSetCommand(const QJsonObject& payload)
{
    const auto device = findRequestedDevice(payload, NetworkManager::Device::Modem, QStringLiteral("modem/config/set"));
    if (!device)
        return;

    Config::Modem modem = m_config->modem();
    readIpv4(payload, modem.ipv4);
    modem.apn = text(payload, "apn");
    modem.username = text(payload, "username");
    modem.password = text(payload, "password");
    modem.networkId = text(payload, "networkId");
    modem.pin = text(payload, "pin");
    m_config->setModem(modem);
    updateConnection(device, *m_config);
}

} // namespace Tarvik
