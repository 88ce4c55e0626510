#pragma once

#include "ipc/ipc.h"

#include <NetworkManagerQt/Device>
#include <QJsonObject>
#include <QMap>
#include <QString>
#include <QVector>
#include <functional>

namespace Tarvik {

// A network device of the gateway as Home Assistant is told of it.
struct GatewayDevice {
    NetworkManager::Device::Type type = NetworkManager::Device::UnknownType;
    QString interface;
    QString mac;
    Topic stateTopic = Topic::Status;
};

// Who the gateway is to Home Assistant and where its values are published.
struct DiscoveryContext {
    QString prefix;
    QString nodeId;     // already in Home Assistant's id characters
    QString deviceId;   // stable across restarts
    QString deviceName;
    std::function<QString(Topic)> topicOf;
    bool hasBudget = false;
};

// Home Assistant's ids take letters, digits, "_" and "-" only; anything else becomes "_".
QString discoveryId(const QString& text);

// Every entity's discovery document, by its config topic. The entities read tarvik's own documents: nothing
// is published twice.
QMap<QString, QJsonObject> discoveryDocuments(const DiscoveryContext& context, const QVector<GatewayDevice>& devices);

} // namespace Tarvik
