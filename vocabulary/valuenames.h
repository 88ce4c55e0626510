#pragma once

#include "vocabulary/mqtterror.h"

#include <ModemManagerQt/Interface>
#include <NetworkManagerQt/AccessPoint>
#include <NetworkManagerQt/ConnectionSettings>
#include <NetworkManagerQt/Device>
#include <NetworkManagerQt/Ipv4Setting>
#include <NetworkManagerQt/Manager>
#include <QString>

namespace Tarvik {

QString deviceTypeToString(NetworkManager::Device::Type type);
QString connectionTypeToString(NetworkManager::ConnectionSettings::ConnectionType type);
QString statusToString(NetworkManager::Status status);
QString connectivityToString(NetworkManager::Connectivity connectivity);
QString stateChangeReasonToString(NetworkManager::Device::StateChangeReason reason);
QString ipv4SettingMethodToString(NetworkManager::Ipv4Setting::ConfigMethod method);
NetworkManager::Ipv4Setting::ConfigMethod ipv4SettingMethodFromString(const QString& method);
QString apModeToString(NetworkManager::AccessPoint::OperationMode mode);

// What an access point asks of a client; provisioning decides on it, documents and logs show its text.
enum class ApSecurity { None, Wep, Wpa1, Wpa2, Wpa1Wpa2, Unknown };
ApSecurity apSecurityOf(NetworkManager::AccessPoint::Ptr ap);
// The decision behind apSecurityOf, on the three flag words read from an access point.
ApSecurity apSecurityFromFlags(uint capabilities, int wpaFlags, int rsnFlags);
QString apSecurityToString(ApSecurity security);
QString apSecurity(NetworkManager::AccessPoint::Ptr ap);
QString apCapabilitiesTostring(NetworkManager::AccessPoint::Capabilities capabilities);
QString modemInterfaceToString(ModemManager::Interface::Ptr iface);
QString mqttErrorToString(MqttError::Code error);

} // namespace Tarvik
