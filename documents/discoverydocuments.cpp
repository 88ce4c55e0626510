#include "documents/discoverydocuments.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

namespace Tarvik {

namespace {

using Type = NetworkManager::Device::Type;

// One value shown in Home Assistant: where it is read and how (a Jinja expression over value_json).
struct Entity {
    const char* component;
    const char* key;
    const char* name;
    const char* value;
    const char* unit = nullptr;
    const char* deviceClass = nullptr;
    const char* stateClass = nullptr;
    bool diagnostic = false;
};

// A missing member shows as "None", which Home Assistant takes for an unknown value.
const Entity networkEntities[] = {
    {"sensor", "connectivity", "Connectivity", "value_json.connectivityStr"},
    {"sensor", "network_state", "Network state", "value_json.stateStr"},
    {"sensor", "primary_connection", "Primary connection",
     "(value_json.primaryConnection or {}).connectionName | default(none)"},
    {"sensor", "primary_interface", "Primary interface",
     "(value_json.primaryConnection or {}).interface | default(none)"},
};

const Entity connected{"binary_sensor", "connected", "connected",
                       "'ON' if value_json.stateStr == 'Connected' else 'OFF'", nullptr, "connectivity"};
const Entity ipv4Address{"sensor", "ipv4", "IPv4 address", "(value_json.ipv4 or {}).address | default(none)"};
const Entity wifiSsid{"sensor", "ssid", "SSID", "(value_json.ap or {}).ssid | default(none)"};
const Entity wifiSignal{"sensor", "signal", "signal", "(value_json.ap or {}).signalStrength | default(none)", "%",
                        nullptr, "measurement", true};
const Entity modemSignal{"sensor", "signal", "signal quality", "value_json.quality", "%", nullptr, "measurement",
                         true};
const Entity modemOperator{"sensor", "operator", "operator", "(value_json.gsm or {}).operatorName | default(none)"};

const Entity modemData{"sensor", "modem_data", "Modem data this cycle", "value_json.totalBytes", "B", "data_size",
                       "total_increasing"};
const Entity modemBudget{"sensor", "modem_budget", "Modem data budget", "value_json.state"};

// The gateway's own record in Home Assistant's device registry.
QJsonObject deviceBlock(const DiscoveryContext& context, const QVector<GatewayDevice>& devices)
{
    QJsonArray connections;
    for (const GatewayDevice& device : devices) {
        if (!device.mac.isEmpty())
            connections.append(QJsonArray{QStringLiteral("mac"), device.mac.toLower()});
    }
    return {{"identifiers", QJsonArray{context.deviceId}},
            {"name", context.deviceName},
            {"model", "tarvik"},
            {"sw_version", TARVIK_VERSION},
            {"connections", connections}};
}

// A Jinja string literal: JSON's quoting is one Jinja reads.
QString literal(const QString& text)
{
    return QString::fromUtf8(QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact).mid(1).chopped(1));
}

class Builder
{
public:
    Builder(const DiscoveryContext& context, const QVector<GatewayDevice>& devices)
        : m_context(context)
        , m_device(deviceBlock(context, devices))
    {
    }

    void add(const Entity& entity, Topic stateTopic, const QString& interface = QString())
    {
        const QString key = interface.isEmpty() ? QLatin1String(entity.key)
                                                : discoveryId(interface) + QLatin1Char('_') + entity.key;
        const QString name = interface.isEmpty() ? QLatin1String(entity.name)
                                                 : interface + QLatin1Char(' ') + entity.name;
        // Several devices of a kind share their kind's topic: the others' documents render empty, which Home
        // Assistant ignores.
        const QString value = QStringLiteral("{{ %1 }}").arg(QLatin1String(entity.value));
        const QString availability = m_context.topicOf(Topic::Availability);
        QJsonObject document{
            {"name", name},
            {"unique_id", m_context.deviceId + QLatin1Char('_') + key},
            {"object_id", m_context.nodeId + QLatin1Char('_') + key},
            {"state_topic", m_context.topicOf(stateTopic)},
            {"value_template", interface.isEmpty() ? value
                                                   : QStringLiteral("{% if value_json.interface == %1 %}%2{% endif %}")
                                                         .arg(literal(interface), value)},
            {"availability_topic", availability},
            {"payload_available", "online"},
            {"payload_not_available", "offline"},
            {"device", m_device},
            {"origin", QJsonObject{{"name", "tarvik"}, {"sw_version", TARVIK_VERSION}}},
        };
        if (QLatin1String(entity.component) == QLatin1String("binary_sensor")) {
            document.insert("payload_on", "ON");
            document.insert("payload_off", "OFF");
        }
        if (entity.unit)
            document.insert("unit_of_measurement", entity.unit);
        if (entity.deviceClass)
            document.insert("device_class", entity.deviceClass);
        if (entity.stateClass)
            document.insert("state_class", entity.stateClass);
        if (entity.diagnostic)
            document.insert("entity_category", "diagnostic");
        m_documents.insert(QStringLiteral("%1/%2/%3/%4/config")
                               .arg(m_context.prefix, QLatin1String(entity.component), m_context.nodeId, key),
                           document);
    }

    QMap<QString, QJsonObject> documents() const { return m_documents; }

private:
    const DiscoveryContext& m_context;
    const QJsonObject m_device;
    QMap<QString, QJsonObject> m_documents;
};

} // namespace

QString discoveryId(const QString& text)
{
    static const QRegularExpression disallowed(QStringLiteral("[^a-zA-Z0-9_-]"));
    return QString(text).replace(disallowed, QStringLiteral("_"));
}

QMap<QString, QJsonObject> discoveryDocuments(const DiscoveryContext& context, const QVector<GatewayDevice>& devices)
{
    Builder builder(context, devices);
    for (const Entity& entity : networkEntities)
        builder.add(entity, Topic::Status);
    bool hasModem = false;
    for (const GatewayDevice& device : devices) {
        builder.add(connected, device.stateTopic, device.interface);
        builder.add(ipv4Address, device.stateTopic, device.interface);
        if (device.type == Type::Wifi) {
            builder.add(wifiSsid, device.stateTopic, device.interface);
            builder.add(wifiSignal, device.stateTopic, device.interface);
        } else if (device.type == Type::Modem) {
            hasModem = true;
            builder.add(modemSignal, Topic::ModemSignal, device.interface);
            builder.add(modemOperator, device.stateTopic, device.interface);
        }
    }
    if (hasModem) {
        builder.add(modemData, Topic::ModemUsage);
        if (context.hasBudget)
            builder.add(modemBudget, Topic::ModemUsage);
    }
    return builder.documents();
}

} // namespace Tarvik
