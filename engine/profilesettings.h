#pragma once

#include "engine/devicerecord.h"
#include "vocabulary/valuenames.h"

#include <NetworkManagerQt/ConnectionSettings>
#include <NetworkManagerQt/GenericTypes>
#include <NetworkManagerQt/Ipv4Setting>
#include <QStringList>

// The configuration written into NetworkManager's settings objects. Nothing
// here talks to NetworkManager: the objects are compared and changed in memory.
namespace Tarvik {

// Writes the record into settings of its own profile type; true when a
// compared value differed. The name and autoconnect flag of a modem profile
// are written but do not count as a change.
bool updateConnectionSettings(NetworkManager::ConnectionSettings::Ptr settings, const DeviceRecord& record,
                              ApSecurity security);

// Writes one IPv4 record; true when something changed. Every form of the
// addresses is kept in step: NetworkManager prefers whichever it is sent.
bool updateIpv4Configuration(NetworkManager::Ipv4Setting::Ptr setting, const Config::Ipv4Config& ipv4);

// True when the record empties a modem secret that the profile still holds:
// an update without the secret keeps the stored one, only clearing removes it.
bool emptiesStoredSecrets(NetworkManager::ConnectionSettings::Ptr settings, const DeviceRecord& record);

// The map an update sends. Every update names the GSM password and PIN, empty
// when the profile holds none; what that added is remembered so that an update
// NetworkManager refuses for it can be sent again without.
struct UpdateMap {
    NMVariantMapMap settings;
    QStringList addedGsmKeys;
    bool addedGsmGroup = false;

    // Whether a refusal with this D-Bus error names a key that was added.
    bool refusesAddedKey(const QString& errorName, const QString& message) const;
    NMVariantMapMap withoutAddedKeys() const;
};

UpdateMap updateMapOf(NetworkManager::ConnectionSettings::Ptr settings);

} // namespace Tarvik
