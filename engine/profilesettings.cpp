#include "engine/profilesettings.h"

#include <NetworkManagerQt/GsmSetting>
#include <NetworkManagerQt/Ipv6Setting>
#include <NetworkManagerQt/WirelessSecuritySetting>
#include <NetworkManagerQt/WirelessSetting>
#include <QHostAddress>

namespace Tarvik {

namespace {

const QString wirelessSecurityGroup = QStringLiteral("802-11-wireless-security");
const QString gsmGroup = QStringLiteral("gsm");
const QString gsmDialNumber = QStringLiteral("*99#");
const QStringList gsmSecretKeys = {QStringLiteral("password"), QStringLiteral("pin")};
const QString invalidPropertyError =
    QStringLiteral("org.freedesktop.NetworkManager.Settings.Connection.InvalidProperty");

template <typename T>
QSharedPointer<T> settingOf(const NetworkManager::ConnectionSettings::Ptr& settings,
                            NetworkManager::Setting::SettingType type)
{
    return settings->setting(type).template staticCast<T>();
}

// Writes the wanted value through the setter when the getter reads another
// one; true when it did.
template <typename Object, typename Getter, typename Setter, typename Value>
bool updateValue(Object& object, Getter get, Setter set, const Value& wanted)
{
    if ((object.*get)() == wanted) {
        return false;
    }
    (object.*set)(wanted);
    return true;
}

QList<QHostAddress> dnsListOf(const Config::Ipv4Config& ipv4)
{
    QList<QHostAddress> dns;
    for (const QString& server : {ipv4.dns0, ipv4.dns1}) {
        if (!server.isEmpty()) {
            dns.append(QHostAddress(server));
        }
    }
    return dns;
}

bool sameAddresses(const QList<NetworkManager::IpAddress>& current, const NetworkManager::IpAddress& wanted)
{
    return current.size() == 1 && current.first().ip() == wanted.ip() && current.first().netmask() == wanted.netmask()
        && current.first().gateway() == wanted.gateway();
}

// The legacy list, the address data and the gateway all say the same.
void setAddresses(NetworkManager::Ipv4Setting& setting, const QList<NetworkManager::IpAddress>& addresses)
{
    NMVariantMapList data;
    for (const NetworkManager::IpAddress& address : addresses) {
        data.append({{QStringLiteral("address"), address.ip().toString()},
                     {QStringLiteral("prefix"), uint(address.prefixLength())}});
    }
    setting.setAddresses(addresses);
    setting.setAddressData(data);
    setting.setGateway(addresses.isEmpty() ? QString() : addresses.first().gateway().toString());
}

bool updateIpv4Of(const NetworkManager::ConnectionSettings::Ptr& settings, const Config::Ipv4Config& ipv4)
{
    auto setting = settingOf<NetworkManager::Ipv4Setting>(settings, NetworkManager::Setting::Ipv4);
    return setting && updateIpv4Configuration(setting, ipv4);
}

bool updateWirelessSecurity(const NetworkManager::ConnectionSettings::Ptr& settings,
                            const NetworkManager::WirelessSetting::Ptr& wireless, const Config::Wifi& wifi,
                            ApSecurity security)
{
    using Security = NetworkManager::WirelessSecuritySetting;
    const bool wpa = security == ApSecurity::Wpa1 || security == ApSecurity::Wpa2 || security == ApSecurity::Wpa1Wpa2;
    const bool wep = security == ApSecurity::Wep;
    auto securitySetting = settingOf<Security>(settings, NetworkManager::Setting::WirelessSecurity);
    if (!(wpa || wep) || !securitySetting) {
        return false;
    }

    bool changed = false;
    if (wpa) {
        changed |= updateValue(*securitySetting, &Security::keyMgmt, &Security::setKeyMgmt, Security::WpaPsk);
        changed |= updateValue(*securitySetting, &Security::psk, &Security::setPsk, wifi.key);
    } else {
        changed |= updateValue(*securitySetting, &Security::keyMgmt, &Security::setKeyMgmt, Security::Wep);
        changed |= updateValue(*securitySetting, &Security::wepKey0, &Security::setWepKey0, wifi.key);
        securitySetting->setWepKeyType(Security::Passphrase);
    }
    securitySetting->setInitialized(true);
    if (wireless) {
        wireless->setSecurity(wirelessSecurityGroup);
        wireless->setInitialized(true);
    }
    return changed;
}

bool updateWiredSettings(NetworkManager::ConnectionSettings& settings, const Config::Ethernet& ethernet)
{
    using Settings = NetworkManager::ConnectionSettings;
    bool changed = updateValue(settings, &Settings::id, &Settings::setId, ethernet.id);
    changed |= updateValue(settings, &Settings::autoconnect, &Settings::setAutoconnect, ethernet.autocon);
    return changed;
}

bool updateGsmSettings(const NetworkManager::ConnectionSettings::Ptr& settings, const Config::Modem& modem)
{
    settings->setId(modem.id);
    settings->setAutoconnect(modem.autocon);
    using Gsm = NetworkManager::GsmSetting;
    auto gsm = settingOf<Gsm>(settings, NetworkManager::Setting::Gsm);
    if (!gsm) {
        return false;
    }
    bool changed = updateValue(*gsm, &Gsm::apn, &Gsm::setApn, modem.apn);
    changed |= updateValue(*gsm, &Gsm::username, &Gsm::setUsername, modem.username);
    changed |= updateValue(*gsm, &Gsm::networkId, &Gsm::setNetworkId, modem.networkId);
    changed |= updateValue(*gsm, &Gsm::password, &Gsm::setPassword, modem.password);
    changed |= updateValue(*gsm, &Gsm::pin, &Gsm::setPin, modem.pin);
    gsm->setNumber(gsmDialNumber);
    gsm->setPasswordFlags(NetworkManager::Setting::None);
    gsm->setPinFlags(NetworkManager::Setting::None);
    gsm->setInitialized(true);
    return changed;
}

bool updateWirelessSettings(const NetworkManager::ConnectionSettings::Ptr& settings, const Config::Wifi& wifi,
                            ApSecurity security)
{
    using Settings = NetworkManager::ConnectionSettings;
    bool changed = updateValue(*settings, &Settings::id, &Settings::setId, wifi.ssid);
    changed |= updateValue(*settings, &Settings::autoconnect, &Settings::setAutoconnect, wifi.autocon);

    auto wireless = settingOf<NetworkManager::WirelessSetting>(settings, NetworkManager::Setting::Wireless);
    if (wireless && QString::fromUtf8(wireless->ssid()) != wifi.ssid) {
        wireless->setSsid(wifi.ssid.toUtf8());
        changed = true;
    }
    changed |= updateWirelessSecurity(settings, wireless, wifi, security);
    changed |= updateIpv4Of(settings, wifi.ipv4);

    auto ipv6 = settingOf<NetworkManager::Ipv6Setting>(settings, NetworkManager::Setting::Ipv6);
    if (ipv6 && ipv6->method() != NetworkManager::Ipv6Setting::Ignored) {
        ipv6->setMethod(NetworkManager::Ipv6Setting::Ignored);
        ipv6->setInitialized(true);
        changed = true;
    }
    return changed;
}

} // namespace

bool updateConnectionSettings(NetworkManager::ConnectionSettings::Ptr settings, const DeviceRecord& record,
                              ApSecurity security)
{
    if (!settings) {
        return false;
    }
    using Type = NetworkManager::ConnectionSettings;
    const Type::ConnectionType type = settings->connectionType();
    if (const auto* ethernet = std::get_if<Config::Ethernet>(&record); ethernet && type == Type::Wired) {
        const bool changed = updateWiredSettings(*settings, *ethernet);
        return updateIpv4Of(settings, ethernet->ipv4) || changed;
    }
    if (const auto* modem = std::get_if<Config::Modem>(&record); modem && type == Type::Gsm) {
        const bool changed = updateGsmSettings(settings, *modem);
        return updateIpv4Of(settings, modem->ipv4) || changed;
    }
    if (const auto* wifi = std::get_if<Config::Wifi>(&record); wifi && type == Type::Wireless) {
        return updateWirelessSettings(settings, *wifi, security);
    }
    return false;
}

bool updateIpv4Configuration(NetworkManager::Ipv4Setting::Ptr setting, const Config::Ipv4Config& ipv4)
{
    using Ipv4 = NetworkManager::Ipv4Setting;
    bool changed = false;

    if (ipv4.method == QLatin1String("auto")) {
        if (setting->method() != Ipv4::Automatic) {
            setAddresses(*setting, {});
            setting->setMethod(Ipv4::Automatic);
            changed = true;
        }
    } else if (ipv4.method == QLatin1String("manual")) {
        NetworkManager::IpAddress address;
        address.setIp(QHostAddress(ipv4.address));
        address.setNetmask(QHostAddress(ipv4.netmask));
        address.setGateway(QHostAddress(ipv4.gateway));

        changed |= updateValue(*setting, &Ipv4::method, &Ipv4::setMethod, Ipv4::Manual);
        if (!sameAddresses(setting->addresses(), address)) {
            setAddresses(*setting, {address});
            changed = true;
        }
        changed |= updateValue(*setting, &Ipv4::dns, &Ipv4::setDns, dnsListOf(ipv4));
    } else if (setting->method() != Ipv4::LinkLocal) {
        // NetworkManager refuses a link-local profile that keeps addresses or name servers.
        setAddresses(*setting, {});
        setting->setDns({});
        setting->setMethod(Ipv4::LinkLocal);
        changed = true;
    }

    setting->setInitialized(true);
    return changed;
}

bool emptiesStoredSecrets(NetworkManager::ConnectionSettings::Ptr settings, const DeviceRecord& record)
{
    const auto* modem = std::get_if<Config::Modem>(&record);
    if (!modem || !settings || settings->connectionType() != NetworkManager::ConnectionSettings::Gsm) {
        return false;
    }
    const auto gsm = settingOf<NetworkManager::GsmSetting>(settings, NetworkManager::Setting::Gsm);
    return gsm
        && ((!gsm->password().isEmpty() && modem->password.isEmpty()) || (!gsm->pin().isEmpty() && modem->pin.isEmpty()));
}

UpdateMap updateMapOf(NetworkManager::ConnectionSettings::Ptr settings)
{
    UpdateMap update;
    update.settings = settings->toMap();
    update.addedGsmGroup = !update.settings.contains(gsmGroup);
    QVariantMap& gsm = update.settings[gsmGroup];
    for (const QString& key : gsmSecretKeys) {
        if (!gsm.contains(key)) {
            gsm.insert(key, QString());
            update.addedGsmKeys.append(key);
        }
    }
    return update;
}

bool UpdateMap::refusesAddedKey(const QString& errorName, const QString& message) const
{
    if (errorName != invalidPropertyError) {
        return false;
    }
    for (const QString& key : addedGsmKeys) {
        if (message.startsWith(gsmGroup + QLatin1Char('.') + key + QLatin1Char(':'))) {
            return true;
        }
    }
    return false;
}

NMVariantMapMap UpdateMap::withoutAddedKeys() const
{
    NMVariantMapMap map = settings;
    if (addedGsmGroup) {
        map.remove(gsmGroup);
        return map;
    }
    for (const QString& key : addedGsmKeys) {
        map[gsmGroup].remove(key);
    }
    return map;
}

} // namespace Tarvik
