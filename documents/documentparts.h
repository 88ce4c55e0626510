#pragma once

#include "vocabulary/devicestate.h"

#include <NetworkManagerQt/Connection>
#include <NetworkManagerQt/ConnectionSettings>
#include <NetworkManagerQt/Device>
#include <NetworkManagerQt/GenericTypes>
#include <NetworkManagerQt/Setting>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

// Pieces that several device documents share, and what decides which profile they describe.
namespace Tarvik {
namespace DocumentParts {

// "interface", "type", "typeStr", "state" and "stateStr" of a device, or the
// same five members as null when the device is unknown.
void insertDeviceMembers(QJsonObject& document, const NetworkManager::Device::Ptr& device, DeviceState state);

// The members every device state document starts with: the five above plus
// "reason" and "reasonStr". The device must exist.
void insertStateMembers(QJsonObject& document, const NetworkManager::Device::Ptr& device, DeviceState state);

// The profile a configuration document describes: the device's first available
// connection, or null when it has none.
NetworkManager::Connection::Ptr firstAvailableConnection(const NetworkManager::Device::Ptr& device);

// A configuration document for a device without a profile: "method" "unknown" and "interface".
QJsonObject unknownConfig(const NetworkManager::Device::Ptr& device);

// A configuration document's start: the members of the profile's IPv4
// setting at the top level (none when the profile has no IPv4 setting).
QJsonObject ipv4ConfigMembers(const NetworkManager::Connection::Ptr& profile);

// A setting of a profile cast to its own class, or null when the profile lacks it.
template<typename T>
QSharedPointer<T> profileSetting(const NetworkManager::Connection::Ptr& connection, NetworkManager::Setting::SettingType type)
{
    const NetworkManager::ConnectionSettings::Ptr settings = connection->settings();
    if (!settings) {
        return QSharedPointer<T>();
    }
    return settings->setting(type).template staticCast<T>();
}

} // namespace DocumentParts
} // namespace Tarvik
