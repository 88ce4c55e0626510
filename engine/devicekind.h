#pragma once

#include "engine/devicerecord.h"
#include "ipc/ipc.h"
#include "log/taggedlog.h"
#include "vocabulary/valuenames.h"

#include <NetworkManagerQt/AccessPoint>
#include <NetworkManagerQt/ConnectionSettings>
#include <NetworkManagerQt/Device>
#include <NetworkManagerQt/Setting>
#include <QJsonObject>
#include <QString>
#include <QVariantMap>
#include <QVector>

#include <optional>

namespace Tarvik {

// The profile a device is to hold: its name and type, and for Wi-Fi the access point it is activated on and
// what that asks for.
struct ProfileTarget {
    QByteArray tag;
    QString name;
    NetworkManager::ConnectionSettings::ConnectionType type = NetworkManager::ConnectionSettings::Unknown;
    QString accessPoint;
    ApSecurity security = ApSecurity::None;
};

// A document about a device: where it goes and how it is built. An empty document is not published.
struct DeviceDocument {
    Topic topic;
    QJsonObject (*build)(const NetworkManager::Device::Ptr& device);
};

// One kind of device that tarvik provisions, described in one place: its commands, how a set command's payload
// becomes its configuration record, the profile NetworkManager holds for it, and its documents.
struct DeviceKind {
    NetworkManager::Device::Type deviceType;
    // The kind's name in its commands and topics.
    const char* name;
    // Errors of the set command are published under this command name; clients rely on it.
    const char* setErrorCommand;
    NetworkManager::ConnectionSettings::ConnectionType connectionType;
    // The setting whose secrets complete the profile: compared when provisioning, shown in the configuration
    // document; Setting::Generic for none.
    NetworkManager::Setting::SettingType secretSetting;
    // Whether provisioning logs secrets it could not read (the Wi-Fi key) or passes over them silently.
    bool logsUnreadSecrets;
    bool countsDataUsage;

    DeviceDocument state;
    Topic configTopic;
    QJsonObject (*configDocument)(const NetworkManager::Device::Ptr& device, const std::optional<QVariantMap>& secrets);
    // Published after the configuration whenever the device is reloaded.
    QVector<DeviceDocument> companions;

    DeviceRecord (*recordOf)(const Config& config);
    void (*store)(Config& config, const DeviceRecord& record);
    // A set command's fields written over the record; an absent field empties its own.
    void (*readPayload)(DeviceRecord& record, const QJsonObject& payload);
    // Logs why the device gets no profile (no cable, no SSID, out of range) and gives none then.
    std::optional<ProfileTarget> (*target)(const NetworkManager::Device::Ptr& device, const DeviceRecord& record,
                                           const TaggedLog& log);

    QString configGetCommand() const;
    bool hasSecrets() const;
    QString secretSettingName() const;

    // The kind of a device tarvik provisions; null for any other.
    static const DeviceKind* of(NetworkManager::Device::Type type);
};

// The reference access point of the first network of the device with this SSID.
NetworkManager::AccessPoint::Ptr findAccessPoint(const NetworkManager::Device::Ptr& device, const QString& ssid);

} // namespace Tarvik
