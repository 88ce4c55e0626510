// Reads the system bus through NetworkManagerQt and ModemManagerQt, the way tarvik does,
// and prints what the libraries make of it as JSON. The tests of the simulated world use it
// to prove that the simulation answers as the libraries expect.
//
//   nmprobe snapshot                      one JSON object: status, devices, connections, modems
//   nmprobe watch SECONDS                 {"event": "ready"}, then one JSON line per library signal
//   nmprobe activate UUID IFACE [AP]      waited activateConnection
//   nmprobe add-activate-unknown IFACE    waited addAndActivateConnection of an Unknown-type profile
//   nmprobe update-manual UUID ADDRESS PREFIX GATEWAY DNS
//                                         waited update with a manual IPv4 setting, then the settings read back
//   nmprobe provision-wifi IFACE SSID AP [PSK]                 waited addAndActivateConnection of a Wi-Fi profile
//   nmprobe provision-gsm IFACE ID APN USER PASSWORD PIN       the same for a GSM profile
//   nmprobe scan IFACE                    waited requestScan
//   nmprobe secrets-latency UUID SETTING [N]  p50 and p99 of N waited secrets calls

#include <ModemManagerQt/Bearer>
#include <ModemManagerQt/Manager>
#include <ModemManagerQt/Modem3Gpp>
#include <ModemManagerQt/ModemCdma>
#include <ModemManagerQt/ModemDevice>
#include <NetworkManagerQt/ActiveConnection>
#include <NetworkManagerQt/Connection>
#include <NetworkManagerQt/ConnectionSettings>
#include <NetworkManagerQt/GsmSetting>
#include <NetworkManagerQt/Ipv4Setting>
#include <NetworkManagerQt/Manager>
#include <NetworkManagerQt/ModemDevice>
#include <NetworkManagerQt/Settings>
#include <NetworkManagerQt/WiredDevice>
#include <NetworkManagerQt/WirelessDevice>
#include <NetworkManagerQt/WirelessSecuritySetting>
#include <NetworkManagerQt/WirelessSetting>

#include <QCoreApplication>
#include <QDBusPendingReply>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <functional>

namespace {

void print(const QJsonObject& object)
{
    std::fputs(QJsonDocument(object).toJson(QJsonDocument::Compact).constData(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

QJsonValue variantToJson(const QVariant& value)
{
    if (value.type() == QVariant::ByteArray)
        return QString::fromLatin1(value.toByteArray());
    if (value.canConvert<QVariantMap>() && value.type() == QVariant::Map) {
        QJsonObject object;
        const QVariantMap map = value.toMap();
        for (auto it = map.begin(); it != map.end(); ++it)
            object.insert(it.key(), variantToJson(it.value()));
        return object;
    }
    const QJsonValue converted = QJsonValue::fromVariant(value);
    return converted.isNull() ? QJsonValue(QString::fromLatin1(value.typeName())) : converted;
}

QJsonObject mapMapToJson(const NMVariantMapMap& map)
{
    QJsonObject object;
    for (auto group = map.begin(); group != map.end(); ++group) {
        QJsonObject inner;
        for (auto it = group.value().begin(); it != group.value().end(); ++it)
            inner.insert(it.key(), variantToJson(it.value()));
        object.insert(group.key(), inner);
    }
    return object;
}

QJsonObject replyToJson(const QDBusPendingCall& call)
{
    return {{"valid", !call.isError()}, {"error", call.error().name()}, {"message", call.error().message()}};
}

QJsonObject ipConfigToJson(const NetworkManager::IpConfig& config)
{
    QJsonArray addresses;
    for (const NetworkManager::IpAddress& address : config.addresses())
        addresses.append(QJsonObject{{"ip", address.ip().toString()},
                                     {"netmask", address.netmask().toString()},
                                     {"gateway", address.gateway().toString()}});
    QJsonArray nameservers;
    for (const QHostAddress& server : config.nameservers())
        nameservers.append(server.toString());
    return {{"addresses", addresses}, {"gateway", config.gateway()}, {"nameservers", nameservers}};
}

QJsonValue activeToJson(const NetworkManager::ActiveConnection::Ptr& active)
{
    if (!active || !active->isValid())
        return QJsonValue::Null;
    return QJsonObject{{"path", active->path()},
                       {"id", active->id()},
                       {"connection", active->connection() ? active->connection()->name() : QString()},
                       {"state", int(active->state())},
                       {"devices", QJsonArray::fromStringList(active->devices())},
                       {"default", active->default4()},
                       {"ipv4", ipConfigToJson(active->ipV4Config())}};
}

QJsonValue accessPointToJson(const NetworkManager::AccessPoint::Ptr& ap)
{
    if (!ap)
        return QJsonValue::Null;
    return QJsonObject{{"path", ap->uni()},
                       {"ssid", ap->ssid()},
                       {"hardwareAddress", ap->hardwareAddress()},
                       {"frequency", int(ap->frequency())},
                       {"maxBitRate", int(ap->maxBitRate())},
                       {"signalStrength", ap->signalStrength()},
                       {"mode", int(ap->mode())},
                       {"capabilities", int(ap->capabilities())},
                       {"wpaFlags", int(ap->wpaFlags())},
                       {"rsnFlags", int(ap->rsnFlags())}};
}

QJsonObject settingsToJson(const NetworkManager::ConnectionSettings::Ptr& settings)
{
    QJsonObject object{{"id", settings->id()},
                       {"uuid", settings->uuid()},
                       {"type", int(settings->connectionType())},
                       {"autoconnect", settings->autoconnect()}};
    auto ipv4 = settings->setting(NetworkManager::Setting::Ipv4).dynamicCast<NetworkManager::Ipv4Setting>();
    if (ipv4) {
        QJsonArray addresses;
        for (const NetworkManager::IpAddress& address : ipv4->addresses())
            addresses.append(QJsonObject{{"ip", address.ip().toString()},
                                         {"netmask", address.netmask().toString()},
                                         {"gateway", address.gateway().toString()}});
        QJsonArray dns;
        for (const QHostAddress& server : ipv4->dns())
            dns.append(server.toString());
        object.insert("ipv4", QJsonObject{{"method", int(ipv4->method())}, {"addresses", addresses}, {"dns", dns}});
    }
    auto wireless = settings->setting(NetworkManager::Setting::Wireless).dynamicCast<NetworkManager::WirelessSetting>();
    if (wireless && settings->connectionType() == NetworkManager::ConnectionSettings::Wireless)
        object.insert("ssid", QString::fromUtf8(wireless->ssid()));
    auto security = settings->setting(NetworkManager::Setting::WirelessSecurity)
                        .dynamicCast<NetworkManager::WirelessSecuritySetting>();
    if (security && settings->connectionType() == NetworkManager::ConnectionSettings::Wireless)
        object.insert("keyMgmt", int(security->keyMgmt()));
    auto gsm = settings->setting(NetworkManager::Setting::Gsm).dynamicCast<NetworkManager::GsmSetting>();
    if (gsm && settings->connectionType() == NetworkManager::ConnectionSettings::Gsm)
        object.insert("gsm", QJsonObject{{"apn", gsm->apn()},
                                         {"username", gsm->username()},
                                         {"password", gsm->password()},
                                         {"pin", gsm->pin()},
                                         {"networkId", gsm->networkId()}});
    return object;
}

QJsonObject secretsToJson(const NetworkManager::Connection::Ptr& connection, const QString& setting)
{
    QDBusPendingReply<NMVariantMapMap> reply = connection->secrets(setting);
    reply.waitForFinished();
    QJsonObject object = replyToJson(reply);
    object.insert("isValid", reply.isValid());
    if (reply.isValid())
        object.insert("map", mapMapToJson(reply.value()));
    return object;
}

QJsonObject connectionToJson(const NetworkManager::Connection::Ptr& connection)
{
    QJsonObject object{{"path", connection->path()}, {"name", connection->name()},
                       {"settings", settingsToJson(connection->settings())}};
    const auto type = connection->settings()->connectionType();
    if (type == NetworkManager::ConnectionSettings::Wireless || type == NetworkManager::ConnectionSettings::Wired)
        object.insert("wifiSecrets", secretsToJson(connection, QStringLiteral("802-11-wireless-security")));
    if (type == NetworkManager::ConnectionSettings::Gsm)
        object.insert("gsmSecrets", secretsToJson(connection, QStringLiteral("gsm")));
    return object;
}

QJsonObject deviceToJson(const NetworkManager::Device::Ptr& device)
{
    QJsonArray available;
    for (const NetworkManager::Connection::Ptr& connection : device->availableConnections())
        available.append(connection->name());
    QJsonObject object{{"path", device->uni()},
                       {"interface", device->interfaceName()},
                       {"ipInterface", device->ipInterfaceName()},
                       {"type", int(device->type())},
                       {"state", int(device->state())},
                       {"reason", int(device->stateReason().reason())},
                       {"udi", device->udi()},
                       {"managed", device->managed()},
                       {"active", device->isActive()},
                       {"valid", device->isValid()},
                       {"activeConnection", activeToJson(device->activeConnection())},
                       {"ipv4", ipConfigToJson(device->ipV4Config())},
                       {"dhcp4", device->dhcp4Config() ? variantToJson(device->dhcp4Config()->options())
                                                       : QJsonValue(QJsonValue::Null)},
                       {"availableConnections", available}};
    if (auto wired = device.objectCast<NetworkManager::WiredDevice>()) {
        object.insert("mac", wired->hardwareAddress());
        object.insert("carrier", wired->carrier());
    }
    if (auto wireless = device.objectCast<NetworkManager::WirelessDevice>()) {
        object.insert("mac", wireless->hardwareAddress());
        QJsonArray aps;
        for (const QString& path : wireless->accessPoints())
            aps.append(accessPointToJson(wireless->findAccessPoint(path)));
        object.insert("accessPoints", aps);
        object.insert("activeAccessPoint", accessPointToJson(wireless->activeAccessPoint()));
        QJsonArray networks;
        for (const NetworkManager::WirelessNetwork::Ptr& network : wireless->networks()) {
            auto owner = NetworkManager::findNetworkInterface(network->device());
            networks.append(QJsonObject{{"ssid", network->ssid()},
                                        {"signalStrength", network->signalStrength()},
                                        {"device", owner ? owner->interfaceName() : QString()},
                                        {"referenceAP", accessPointToJson(network->referenceAccessPoint())},
                                        {"accessPoints", int(network->accessPoints().size())}});
        }
        object.insert("networks", networks);
    }
    if (device->type() == NetworkManager::Device::Modem)
        object.insert("modemFound", !ModemManager::findModemDevice(device->udi()).isNull());
    return object;
}

QJsonObject modemToJson(const ModemManager::ModemDevice::Ptr& modemDevice)
{
    QJsonObject object{{"uni", modemDevice->uni()},
                       {"isGsm", modemDevice->isGsmModem()},
                       {"isCdma", modemDevice->isCdmaModem()},
                       {"hasGsm", modemDevice->hasInterface(ModemManager::ModemDevice::GsmInterface)},
                       {"hasUssd", modemDevice->hasInterface(ModemManager::ModemDevice::GsmUssdInterface)},
                       {"hasCdma", modemDevice->hasInterface(ModemManager::ModemDevice::CdmaInterface)}};
    if (ModemManager::Modem::Ptr modem = modemDevice->modemInterface()) {
        QJsonArray bearers;
        for (const ModemManager::Bearer::Ptr& bearer : modem->listBearers())
            bearers.append(bearer->interface());
        object.insert("modem", QJsonObject{{"manufacturer", modem->manufacturer()},
                                           {"model", modem->model()},
                                           {"revision", modem->revision()},
                                           {"deviceIdentifier", modem->deviceIdentifier()},
                                           {"signal", int(modem->signalQuality().signal)},
                                           {"recent", modem->signalQuality().recent},
                                           {"state", int(modem->state())},
                                           {"capabilities", int(modem->currentCapabilities())},
                                           {"bearers", bearers}});
    }
    if (ModemManager::Sim::Ptr sim = modemDevice->sim())
        object.insert("sim", QJsonObject{{"imsi", sim->imsi()}, {"id", sim->simIdentifier()}, {"uni", sim->uni()}});
    else
        object.insert("sim", QJsonValue::Null);
    auto gsm = modemDevice->interface(ModemManager::ModemDevice::GsmInterface).objectCast<ModemManager::Modem3gpp>();
    if (gsm)
        object.insert("gsm", QJsonObject{{"imei", gsm->imei()},
                                         {"operatorCode", gsm->operatorCode()},
                                         {"operatorName", gsm->operatorName()}});
    auto cdma = modemDevice->interface(ModemManager::ModemDevice::CdmaInterface).objectCast<ModemManager::ModemCdma>();
    if (cdma)
        object.insert("cdma", QJsonObject{{"meid", cdma->meid()}, {"esn", cdma->esn()}});
    return object;
}

QJsonObject snapshot()
{
    QJsonArray devices;
    for (const NetworkManager::Device::Ptr& device : NetworkManager::networkInterfaces())
        devices.append(deviceToJson(device));
    QJsonArray connections;
    for (const NetworkManager::Connection::Ptr& connection : NetworkManager::listConnections())
        connections.append(connectionToJson(connection));
    QJsonArray modems;
    for (const ModemManager::ModemDevice::Ptr& modem : ModemManager::modemDevices())
        modems.append(modemToJson(modem));
    return {{"version", NetworkManager::version()},
            {"hostname", NetworkManager::hostname()},
            {"status", int(NetworkManager::status())},
            {"connectivity", int(NetworkManager::connectivity())},
            {"primaryConnection", activeToJson(NetworkManager::primaryConnection())},
            {"devices", devices},
            {"connections", connections},
            {"modems", modems}};
}

NetworkManager::Device::Ptr deviceNamed(const QString& name)
{
    for (const NetworkManager::Device::Ptr& device : NetworkManager::networkInterfaces())
        if (device->interfaceName() == name)
            return device;
    return {};
}

void event(const QString& name, QJsonObject fields)
{
    fields.insert("event", name);
    print(fields);
}

void watchDevice(const NetworkManager::Device::Ptr& device, QObject* context)
{
    const QString name = device->interfaceName();
    QObject::connect(device.data(), &NetworkManager::Device::stateChanged, context,
                     [name](NetworkManager::Device::State now, NetworkManager::Device::State old,
                            NetworkManager::Device::StateChangeReason reason) {
                         event("stateChanged", {{"device", name}, {"new", int(now)}, {"old", int(old)},
                                                {"reason", int(reason)}});
                     });
    QObject::connect(device.data(), &NetworkManager::Device::managedChanged, context,
                     [device]() { event("managedChanged", {{"device", device->interfaceName()},
                                                           {"managed", device->managed()}}); });
    QObject::connect(device.data(), &NetworkManager::Device::interfaceNameChanged, context,
                     [device]() { event("interfaceNameChanged", {{"device", device->interfaceName()}}); });
    QObject::connect(device.data(), &NetworkManager::Device::activeConnectionChanged, context,
                     [device]() { event("activeConnectionChanged", {{"device", device->interfaceName()},
                                                                    {"active", activeToJson(device->activeConnection())}}); });
    QObject::connect(device.data(), &NetworkManager::Device::ipV4ConfigChanged, context,
                     [device]() { event("ipV4ConfigChanged", {{"device", device->interfaceName()},
                                                              {"ipv4", ipConfigToJson(device->ipV4Config())}}); });
    if (auto wired = device.objectCast<NetworkManager::WiredDevice>())
        QObject::connect(wired.data(), &NetworkManager::WiredDevice::carrierChanged, context,
                         [name](bool plugged) { event("carrierChanged", {{"device", name}, {"carrier", plugged}}); });
    if (auto wireless = device.objectCast<NetworkManager::WirelessDevice>()) {
        QObject::connect(wireless.data(), &NetworkManager::WirelessDevice::accessPointAppeared, context,
                         [name, wireless](const QString& path) {
                             event("accessPointAppeared", {{"device", name}, {"path", path},
                                                           {"ap", accessPointToJson(wireless->findAccessPoint(path))}});
                         });
        QObject::connect(wireless.data(), &NetworkManager::WirelessDevice::accessPointDisappeared, context,
                         [name](const QString& path) { event("accessPointDisappeared", {{"device", name}, {"path", path}}); });
        QObject::connect(wireless.data(), &NetworkManager::WirelessDevice::networkAppeared, context,
                         [name](const QString& ssid) { event("networkAppeared", {{"device", name}, {"ssid", ssid}}); });
        QObject::connect(wireless.data(), &NetworkManager::WirelessDevice::networkDisappeared, context,
                         [name](const QString& ssid) { event("networkDisappeared", {{"device", name}, {"ssid", ssid}}); });
        QObject::connect(wireless.data(), &NetworkManager::WirelessDevice::activeAccessPointChanged, context,
                         [name](const QString& path) { event("activeAccessPointChanged", {{"device", name}, {"path", path}}); });
    }
}

void watchModem(const ModemManager::ModemDevice::Ptr& modemDevice, QObject* context)
{
    const QString uni = modemDevice->uni();
    if (ModemManager::Modem::Ptr modem = modemDevice->modemInterface())
        QObject::connect(modem.data(), &ModemManager::Modem::signalQualityChanged, context,
                         [uni](ModemManager::SignalQualityPair pair) {
                             event("signalQualityChanged", {{"modem", uni}, {"signal", int(pair.signal)},
                                                            {"recent", pair.recent}});
                         });
}

int watch(int seconds, QCoreApplication& app)
{
    QObject context;
    for (const NetworkManager::Device::Ptr& device : NetworkManager::networkInterfaces())
        watchDevice(device, &context);
    for (const ModemManager::ModemDevice::Ptr& modem : ModemManager::modemDevices())
        watchModem(modem, &context);
    auto* notifier = NetworkManager::notifier();
    QObject::connect(notifier, &NetworkManager::Notifier::deviceAdded, &context, [&context](const QString& path) {
        auto device = NetworkManager::findNetworkInterface(path);
        event("deviceAdded", {{"path", path}, {"device", device ? device->interfaceName() : QString()},
                              {"udi", device ? device->udi() : QString()},
                              {"modemFound", device && !ModemManager::findModemDevice(device->udi()).isNull()}});
        if (device)
            watchDevice(device, &context);
    });
    QObject::connect(notifier, &NetworkManager::Notifier::deviceRemoved, &context,
                     [](const QString& path) { event("deviceRemoved", {{"path", path}}); });
    QObject::connect(notifier, &NetworkManager::Notifier::statusChanged, &context,
                     [](NetworkManager::Status status) { event("statusChanged", {{"status", int(status)}}); });
    QObject::connect(notifier, &NetworkManager::Notifier::connectivityChanged, &context,
                     [](NetworkManager::Connectivity value) { event("connectivityChanged", {{"connectivity", int(value)}}); });
    QObject::connect(notifier, &NetworkManager::Notifier::primaryConnectionChanged, &context, [](const QString& path) {
        event("primaryConnectionChanged", {{"path", path}, {"active", activeToJson(NetworkManager::findActiveConnection(path))}});
    });
    QObject::connect(ModemManager::notifier(), &ModemManager::Notifier::modemAdded, &context,
                     [&context](const QString& uni) {
                         auto modem = ModemManager::findModemDevice(uni);
                         event("modemAdded", {{"uni", uni}, {"modem", modem ? modemToJson(modem) : QJsonObject()}});
                         if (modem)
                             watchModem(modem, &context);
                     });
    QObject::connect(ModemManager::notifier(), &ModemManager::Notifier::modemRemoved, &context,
                     [](const QString& uni) { event("modemRemoved", {{"uni", uni}}); });
    QObject::connect(NetworkManager::settingsNotifier(), &NetworkManager::SettingsNotifier::connectionAdded, &context,
                     [&context](const QString& path) {
                         auto connection = NetworkManager::findConnection(path);
                         event("connectionAdded", {{"path", path}, {"name", connection ? connection->name() : QString()}});
                         if (connection)
                             QObject::connect(connection.data(), &NetworkManager::Connection::updated, &context, [connection]() {
                                 event("connectionUpdated", {{"name", connection->name()},
                                                             {"settings", settingsToJson(connection->settings())}});
                             });
                     });
    for (const NetworkManager::Connection::Ptr& connection : NetworkManager::listConnections())
        QObject::connect(connection.data(), &NetworkManager::Connection::updated, &context, [connection]() {
            event("connectionUpdated", {{"name", connection->name()}, {"settings", settingsToJson(connection->settings())}});
        });
    QTimer::singleShot(0, &context, []() { event("ready", {}); });
    QTimer::singleShot(seconds * 1000, &app, &QCoreApplication::quit);
    return app.exec();
}

int activate(const QStringList& args)
{
    auto connection = NetworkManager::findConnectionByUuid(args.value(0));
    auto device = deviceNamed(args.value(1));
    if (!connection || !device)
        return 2;
    QDBusPendingReply<QDBusObjectPath> reply =
        NetworkManager::activateConnection(connection->path(), device->uni(), args.value(2, QStringLiteral("/")));
    reply.waitForFinished();
    QJsonObject result = replyToJson(reply);
    result.insert("path", reply.isValid() ? reply.value().path() : QString());
    print(result);
    return 0;
}

int addActivateUnknown(const QStringList& args)
{
    auto device = deviceNamed(args.value(0));
    if (!device)
        return 2;
    NetworkManager::ConnectionSettings::Ptr settings(
        new NetworkManager::ConnectionSettings(NetworkManager::ConnectionSettings::Unknown));
    settings->setId(QStringLiteral("unknown"));
    settings->setUuid(NetworkManager::ConnectionSettings::createNewUuid());
    QDBusPendingReply<QDBusObjectPath, QDBusObjectPath> reply =
        NetworkManager::addAndActivateConnection(settings->toMap(), device->uni(), QString());
    reply.waitForFinished();
    QJsonObject result = replyToJson(reply);
    result.insert("sent", mapMapToJson(settings->toMap()));
    print(result);
    return 0;
}

// Creates and activates a profile the way a provisioning service builds one with the library.
int addActivate(const NetworkManager::ConnectionSettings::Ptr& settings, const QString& iface, const QString& ap)
{
    auto device = deviceNamed(iface);
    if (!device)
        return 2;
    settings->setUuid(NetworkManager::ConnectionSettings::createNewUuid());
    settings->setAutoconnect(true);
    QDBusPendingReply<QDBusObjectPath, QDBusObjectPath> reply =
        NetworkManager::addAndActivateConnection(settings->toMap(), device->uni(), ap);
    reply.waitForFinished();
    QJsonObject result = replyToJson(reply);
    if (reply.isValid()) {
        result.insert("connection", reply.argumentAt<0>().path());
        result.insert("active", reply.argumentAt<1>().path());
    }
    result.insert("sent", mapMapToJson(settings->toMap()));
    print(result);
    return 0;
}

int provisionWifi(const QStringList& args)
{
    NetworkManager::ConnectionSettings::Ptr settings(
        new NetworkManager::ConnectionSettings(NetworkManager::ConnectionSettings::Wireless));
    settings->setId(args.value(1));
    auto wireless = settings->setting(NetworkManager::Setting::Wireless).dynamicCast<NetworkManager::WirelessSetting>();
    wireless->setSsid(args.value(1).toUtf8());
    if (!args.value(3).isEmpty()) {
        auto security = settings->setting(NetworkManager::Setting::WirelessSecurity)
                            .dynamicCast<NetworkManager::WirelessSecuritySetting>();
        security->setKeyMgmt(NetworkManager::WirelessSecuritySetting::WpaPsk);
        security->setPsk(args.value(3));
        security->setInitialized(true);
        wireless->setSecurity(QStringLiteral("802-11-wireless-security"));
    }
    wireless->setInitialized(true);
    return addActivate(settings, args.value(0), args.value(2));
}

int provisionGsm(const QStringList& args)
{
    NetworkManager::ConnectionSettings::Ptr settings(
        new NetworkManager::ConnectionSettings(NetworkManager::ConnectionSettings::Gsm));
    settings->setId(args.value(1));
    auto gsm = settings->setting(NetworkManager::Setting::Gsm).dynamicCast<NetworkManager::GsmSetting>();
    gsm->setApn(args.value(2));
    gsm->setUsername(args.value(3));
    gsm->setPassword(args.value(4));
    gsm->setPin(args.value(5));
    gsm->setNumber(QStringLiteral("*99#"));
    gsm->setPasswordFlags(NetworkManager::Setting::None);
    gsm->setPinFlags(NetworkManager::Setting::None);
    gsm->setInitialized(true);
    return addActivate(settings, args.value(0), QString());
}

int updateManual(const QStringList& args, QCoreApplication& app)
{
    auto connection = NetworkManager::findConnectionByUuid(args.value(0));
    if (!connection)
        return 2;
    NetworkManager::ConnectionSettings::Ptr settings = connection->settings();
    auto ipv4 = settings->setting(NetworkManager::Setting::Ipv4).dynamicCast<NetworkManager::Ipv4Setting>();
    NetworkManager::IpAddress address;
    address.setIp(QHostAddress(args.value(1)));
    address.setPrefixLength(args.value(2).toInt());
    address.setGateway(QHostAddress(args.value(3)));
    ipv4->setMethod(NetworkManager::Ipv4Setting::Manual);
    ipv4->setAddresses({address});
    ipv4->setDns({QHostAddress(args.value(4))});
    ipv4->setInitialized(true);
    const NMVariantMapMap map = settings->toMap();
    QDBusPendingReply<> reply = connection->update(map);
    reply.waitForFinished();
    QJsonObject result = replyToJson(reply);
    result.insert("sent", mapMapToJson(map));
    bool updated = false;
    QObject::connect(connection.data(), &NetworkManager::Connection::updated, &app, [&updated]() { updated = true; });
    QElapsedTimer timer;
    timer.start();
    while (!updated && timer.elapsed() < 5000)
        app.processEvents(QEventLoop::WaitForMoreEvents, 100);
    result.insert("readBack", settingsToJson(connection->settings()));
    print(result);
    return 0;
}

int secretsLatency(const QStringList& args)
{
    auto connection = NetworkManager::findConnectionByUuid(args.value(0));
    if (!connection)
        return 2;
    const int rounds = args.value(2, QStringLiteral("200")).toInt();
    QVector<qint64> nanoseconds;
    QElapsedTimer timer;
    for (int i = 0; i < rounds; ++i) {
        timer.start();
        QDBusPendingReply<NMVariantMapMap> reply = connection->secrets(args.value(1));
        reply.waitForFinished();
        nanoseconds.append(timer.nsecsElapsed());
    }
    std::sort(nanoseconds.begin(), nanoseconds.end());
    print({{"p50_ms", nanoseconds[rounds / 2] / 1e6}, {"p99_ms", nanoseconds[rounds * 99 / 100] / 1e6}});
    return 0;
}

int scan(const QStringList& args)
{
    auto wireless = deviceNamed(args.value(0)).objectCast<NetworkManager::WirelessDevice>();
    if (!wireless)
        return 2;
    QDBusPendingReply<> reply = wireless->requestScan();
    reply.waitForFinished();
    print(replyToJson(reply));
    return 0;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QStringList args = app.arguments().mid(1);
    const QString command = args.value(0);
    args = args.mid(1);
    if (command == QLatin1String("watch"))
        return watch(args.value(0, QStringLiteral("10")).toInt(), app);

    std::function<int()> run;
    if (command == QLatin1String("snapshot"))
        run = []() { print(snapshot()); return 0; };
    else if (command == QLatin1String("activate"))
        run = [args]() { return activate(args); };
    else if (command == QLatin1String("add-activate-unknown"))
        run = [args]() { return addActivateUnknown(args); };
    else if (command == QLatin1String("update-manual"))
        run = [args, &app]() { return updateManual(args, app); };
    else if (command == QLatin1String("provision-wifi"))
        run = [args]() { return provisionWifi(args); };
    else if (command == QLatin1String("provision-gsm"))
        run = [args]() { return provisionGsm(args); };
    else if (command == QLatin1String("scan"))
        run = [args]() { return scan(args); };
    else if (command == QLatin1String("secrets-latency"))
        run = [args]() { return secretsLatency(args); };
    if (run) {
        // Inside the event loop, so that the libraries' deferred deletions run before exit. Bearers of a
        // modem are listed only after the loop ran once after the modem object was made.
        for (const ModemManager::ModemDevice::Ptr& modem : ModemManager::modemDevices())
            modem->modemInterface();
        int code = 0;
        QTimer::singleShot(0, &app, [&run, &code]() {
            code = run();
            QCoreApplication::quit();
        });
        app.exec();
        return code;
    }
    std::fprintf(stderr, "usage: nmprobe snapshot|watch SECONDS|activate UUID IFACE [AP]|"
                         "add-activate-unknown IFACE|update-manual UUID ADDRESS PREFIX GATEWAY DNS|scan IFACE|"
                         "provision-wifi IFACE SSID AP [PSK]|provision-gsm IFACE ID APN USER PASSWORD PIN|"
                         "secrets-latency UUID SETTING [N]\n");
    return 2;
}
