#include "engine/homeassistantdiscovery.h"

#include "config/config.h"
#include "documents/daemonsonbus.h"
#include "engine/devicekind.h"
#include "ipc/ipc.h"

#include <NetworkManagerQt/Manager>
#include <NetworkManagerQt/WiredDevice>
#include <NetworkManagerQt/WirelessDevice>
#include <QJsonDocument>
#include <QSysInfo>

namespace Tarvik {

namespace {

// Retained, and delivered at least once: a lost removal would leave a ghost entity behind.
constexpr int discoveryQos = 1;

const QByteArray homeAssistantOnline = QByteArrayLiteral("online");

QString macOf(const NetworkManager::Device::Ptr& device)
{
    if (auto wired = device.objectCast<NetworkManager::WiredDevice>())
        return wired->hardwareAddress();
    if (auto wireless = device.objectCast<NetworkManager::WirelessDevice>())
        return wireless->hardwareAddress();
    return {};
}

} // namespace

HomeAssistantDiscovery::HomeAssistantDiscovery(IPC* ipc, Config* config, QObject* parent)
    : QObject(parent)
    , m_ipc(ipc)
    , m_config(config)
{
    const Config::HomeAssistant& settings = m_config->homeAssistant();
    const QString hostName = QSysInfo::machineHostName();
    const QString name = settings.nodeId.isEmpty() ? hostName : settings.nodeId;
    m_context.prefix = settings.prefix;
    m_context.nodeId = discoveryId(name.isEmpty() ? QStringLiteral("tarvik") : name);
    // The machine's id outlives host names and addresses; without one the node id has to do.
    const QByteArray machineId = QSysInfo::machineUniqueId();
    m_context.deviceId = QStringLiteral("tarvik_")
        + (machineId.isEmpty() ? m_context.nodeId : discoveryId(QString::fromLatin1(machineId)));
    m_context.deviceName = name.isEmpty() ? m_context.nodeId : name;
    m_context.topicOf = [ipc](Topic topic) { return ipc->topicOf(topic); };
    m_statusTopic = settings.prefix + QStringLiteral("/status");
    m_ownConfigs = QStringLiteral("%1/+/%2/+/config").arg(settings.prefix, m_context.nodeId);

    connect(m_ipc, &IPC::watchedMessage, this, &HomeAssistantDiscovery::onWatchedMessage);
    // Switched off, the documents of an earlier run are still looked for, to be removed.
    m_ipc->watch(m_ownConfigs);
    if (settings.enabled) {
        m_ipc->watch(m_statusTopic);
        log(Log::Info, "Discovery under '%s' as node '%s'.", qPrintable(settings.prefix),
            qPrintable(m_context.nodeId));
    }
}

QVector<GatewayDevice> HomeAssistantDiscovery::devicesOnBus()
{
    QVector<GatewayDevice> devices;
    if (!isOnBus(Daemon::NetworkManager))
        return devices;
    const auto all = NetworkManager::networkInterfaces();
    for (const NetworkManager::Device::Ptr& device : all) {
        const DeviceKind* kind = DeviceKind::of(device->type());
        if (device->isValid() && kind)
            devices.append({device->type(), device->interfaceName(), macOf(device), kind->state.topic});
    }
    return devices;
}

void HomeAssistantDiscovery::setDevices(const QVector<GatewayDevice>& devices)
{
    m_devices = devices;
    m_devicesKnown = true;
    update(false);
}

void HomeAssistantDiscovery::refresh()
{
    update(false);
}

void HomeAssistantDiscovery::onBrokerConnected()
{
    // A broker that restarted without its store has forgotten them.
    m_published.clear();
    m_retained.clear();
    update(false);
}

void HomeAssistantDiscovery::onWatchedMessage(const QString& topic, const QByteArray& payload)
{
    if (topic == m_statusTopic) {
        if (payload == homeAssistantOnline && m_config->homeAssistant().enabled)
            update(true);
        return;
    }
    if (!MqttClient::topicMatches(m_ownConfigs, topic))
        return;
    if (payload.isEmpty()) {
        m_retained.remove(topic);
        return;
    }
    m_retained.insert(topic);
    if (settled() && !m_wanted.contains(topic))
        remove(topic);
}

bool HomeAssistantDiscovery::settled() const
{
    return !m_config->homeAssistant().enabled || m_devicesKnown;
}

QMap<QString, QByteArray> HomeAssistantDiscovery::wanted() const
{
    QMap<QString, QByteArray> payloads;
    if (!m_config->homeAssistant().enabled || !m_devicesKnown)
        return payloads;
    DiscoveryContext context = m_context;
    context.hasBudget = m_config->dataPlan().hasBudget();
    const QMap<QString, QJsonObject> documents = discoveryDocuments(context, m_devices);
    for (auto document = documents.cbegin(); document != documents.cend(); ++document)
        payloads.insert(document.key(), QJsonDocument(document.value()).toJson(QJsonDocument::Compact));
    return payloads;
}

void HomeAssistantDiscovery::update(bool again)
{
    if (!settled())
        return;
    m_wanted = wanted();
    const QMap<QString, QByteArray>& payloads = m_wanted;
    for (auto payload = payloads.cbegin(); payload != payloads.cend(); ++payload) {
        if (again || m_published.value(payload.key()) != payload.value()) {
            m_ipc->publishAt(payload.key(), payload.value(), discoveryQos, true);
            m_published.insert(payload.key(), payload.value());
        }
    }
    const QSet<QString> held = QSet<QString>(m_retained).unite(QSet<QString>(m_published.keyBegin(), m_published.keyEnd()));
    for (const QString& topic : held) {
        if (!payloads.contains(topic))
            remove(topic);
    }
}

void HomeAssistantDiscovery::remove(const QString& topic)
{
    log(Log::Info, "Removing %s", qPrintable(topic));
    m_ipc->publishAt(topic, QByteArray(), discoveryQos, true);
    m_published.remove(topic);
    m_retained.remove(topic);
}

} // namespace Tarvik
