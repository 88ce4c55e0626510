// Prints one document in the form tarvik publishes it, built against the
// system bus of its environment, so that tests check the documents without a
// broker: documentprobe <topic> [interface]
#include "documents/daemonsonbus.h"
#include "documents/documents.h"

#include <NetworkManagerQt/Manager>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusPendingReply>
#include <QJsonDocument>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <functional>

namespace {

// The secrets of the device's first profile, as tarvik hands them to its documents.
std::optional<QVariantMap> secretsOf(const NetworkManager::Device::Ptr& device, const QString& setting)
{
    const auto profiles = device ? device->availableConnections() : NetworkManager::Connection::List();
    if (profiles.isEmpty())
        return std::nullopt;
    QDBusPendingReply<NMVariantMapMap> reply = profiles.first()->secrets(setting);
    reply.waitForFinished();
    return reply.isValid() ? std::optional<QVariantMap>(reply.value().value(setting)) : std::nullopt;
}

QJsonObject build(const QString& topic, const QString& interface)
{
    using namespace Tarvik;
    const auto devices = NetworkManager::networkInterfaces();
    const auto named = std::find_if(devices.begin(), devices.end(),
        [&interface](const NetworkManager::Device::Ptr& d) { return d->interfaceName() == interface; });
    const auto device = named == devices.end() ? NetworkManager::Device::Ptr() : *named;
    const auto wired = device.objectCast<NetworkManager::WiredDevice>();
    const auto wireless = device.objectCast<NetworkManager::WirelessDevice>();
    const auto modem = device.objectCast<NetworkManager::ModemDevice>();
    const QMap<QString, std::function<QJsonObject()>> builders {
        { "status", [] { return networkStatusDocument(); } },
        { "info", [] { return networkInfoDocument(); } },
        { "ethernet/state", [&] { return ethernetStateDocument(wired); } },
        { "ethernet/config", [&] { return ethernetConfigDocument(wired); } },
        { "wifi/state", [&] { return wifiStateDocument(wireless); } },
        { "wifi/config", [&] { return wifiConfigDocument(wireless, secretsOf(device, "802-11-wireless-security")); } },
        { "wifi/aps", [&] { return wifiAccessPointsDocument(wireless); } },
        { "wifi/networks", [&] { return wifiNetworksDocument(wireless); } },
        { "modem/state", [&] { return modemStateDocument(modem); } },
        { "modem/config", [&] { return modemConfigDocument(modem, secretsOf(device, "gsm")); } },
        { "modem/signal", [&] { return modemSignalDocument(modem); } },
    };
    return builders.value(topic, [] { return QJsonObject{{"probe", "unknown document"}}; })();
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    if (argc < 2)
        return 2;
    // Opened before the loop, as tarvik does: Qt keeps helper objects of a first
    // connection opened inside the loop until after the leak check.
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected())
        return 3;
    for (const auto& [daemon, name] : {std::pair{Tarvik::Daemon::NetworkManager, "org.freedesktop.NetworkManager"},
                                       std::pair{Tarvik::Daemon::ModemManager, "org.freedesktop.ModemManager1"}})
        Tarvik::setOnBus(daemon, bus.interface()->isServiceRegistered(QString::fromLatin1(name)));
    // The library settles its objects in the event loop first.
    QTimer::singleShot(0, &app, [&] {
        const QByteArray text = QJsonDocument(build(argv[1], argc > 2 ? argv[2] : QString())).toJson();
        std::fwrite(text.constData(), 1, size_t(text.size()), stdout);
        app.quit();
    });
    return app.exec();
}
