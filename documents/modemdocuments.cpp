// The mobile-broadband device: state with the ModemManager identity, the
// NetworkManager profile, signal quality and data usage.

#include "documents/daemonsonbus.h"
#include "documents/documentparts.h"
#include "documents/documents.h"
#include "vocabulary/devicestate.h"

#include <ModemManagerQt/Manager>
#include <ModemManagerQt/Modem3Gpp>
#include <ModemManagerQt/ModemCdma>
#include <ModemManagerQt/ModemDevice>
#include <NetworkManagerQt/GsmSetting>

#include <climits>
#include <cmath>

namespace Tarvik {

namespace {

// The ModemManager side of a NetworkManager modem: its UDI is the modem's path.
ModemManager::ModemDevice::Ptr modemManagerDevice(const NetworkManager::ModemDevice::Ptr& device)
{
    if (!isOnBus(Daemon::ModemManager)) {
        return ModemManager::ModemDevice::Ptr();
    }
    return ModemManager::findModemDevice(device->udi());
}

QJsonObject hardwareObject(const ModemManager::Modem::Ptr& modem)
{
    QJsonObject object;
    object.insert("id", modem->deviceIdentifier());
    object.insert("manufacturer", modem->manufacturer());
    object.insert("model", modem->model());
    object.insert("revision", modem->revision());
    return object;
}

QJsonObject simObject(const ModemManager::Sim::Ptr& sim)
{
    QJsonObject object;
    object.insert("imsi", sim->imsi());
    object.insert("id", sim->simIdentifier());
    return object;
}

// The library calls a modem GSM only when it offers the 3GPP interface; one
// with GSM capabilities that offers nothing but USSD is a GSM modem all the same.
bool isGsmModem(const ModemManager::ModemDevice::Ptr& device, const ModemManager::Modem::Ptr& modem)
{
    const int gsmCapabilities = MM_MODEM_CAPABILITY_GSM_UMTS | MM_MODEM_CAPABILITY_LTE | MM_MODEM_CAPABILITY_5GNR;
    return device->isGsmModem() || (modem && (int(modem->currentCapabilities()) & gsmCapabilities));
}

// A modem reports one network identity: 3GPP, else USSD only, else CDMA.
void insertNetworkIdentity(QJsonObject& document, const ModemManager::ModemDevice::Ptr& device,
                           const ModemManager::Modem::Ptr& modem)
{
    if (isGsmModem(device, modem)) {
        const auto gsm = device->interface(ModemManager::ModemDevice::GsmInterface).objectCast<ModemManager::Modem3gpp>();
        if (gsm) {
            QJsonObject object;
            object.insert("imei", gsm->imei());
            object.insert("operatorCode", gsm->operatorCode());
            object.insert("operatorName", gsm->operatorName());
            document.insert("gsm", object);
        } else if (device->hasInterface(ModemManager::ModemDevice::GsmUssdInterface)) {
            document.insert("gsmUssd", QJsonObject());
        }
        return;
    }
    if (device->isCdmaModem()) {
        const auto cdma = device->interface(ModemManager::ModemDevice::CdmaInterface).objectCast<ModemManager::ModemCdma>();
        if (cdma) {
            QJsonObject object;
            object.insert("meid", cdma->meid());
            object.insert("esn", cdma->esn());
            document.insert("cdma", object);
        }
    }
}

void insertModemManagerMembers(QJsonObject& document, const ModemManager::ModemDevice::Ptr& device)
{
    const ModemManager::Modem::Ptr modem = device->modemInterface();
    if (modem) {
        document.insert("device", hardwareObject(modem));
        document.insert("signal", int(modem->signalQuality().signal));
    }
    // Without a SIM the library still hands out an object, for the path "/".
    const ModemManager::Sim::Ptr sim = device->sim();
    if (sim && !sim->uni().isEmpty() && sim->uni() != QLatin1String("/")) {
        document.insert("sim", simObject(sim));
    }
    insertNetworkIdentity(document, device, modem);
}

// The profile's GSM members. The password and the PIN are secrets that the
// profile's settings never show: they come from the secrets, when there are any.
void insertGsmMembers(QJsonObject& document, const NetworkManager::Connection::Ptr& profile,
                      const std::optional<QVariantMap>& secrets)
{
    const auto gsm = DocumentParts::profileSetting<NetworkManager::GsmSetting>(profile, NetworkManager::Setting::Gsm);
    if (!gsm) {
        return;
    }
    const QVariantMap stored = secrets.value_or(QVariantMap());
    document.insert("apn", gsm->apn());
    document.insert("username", gsm->username());
    document.insert("password", stored.value("password", gsm->password()).toString());
    document.insert("networkId", gsm->networkId());
    document.insert("pin", stored.value("pin", gsm->pin()).toString());
}

// Two decimals, half up, through a 32-bit integer; values the integer cannot
// hold are clamped instead of overflowing.
double roundedUsage(double value)
{
    const double scaled = value * 100 + 0.5;
    if (std::isnan(scaled)) {
        return 0;
    }
    if (scaled >= double(INT_MAX)) {
        return INT_MAX / 100.0;
    }
    if (scaled <= double(INT_MIN)) {
        return INT_MIN / 100.0;
    }
    return int(scaled) / 100.0;
}

} // namespace

QJsonObject modemStateDocument(NetworkManager::ModemDevice::Ptr modem)
{
    const DeviceState state = mapDeviceState(modem->state());
    QJsonObject document;
    DocumentParts::insertStateMembers(document, modem, state);
    const bool online = state == Connected && modem->activeConnection();
    document.insert("ipv4", online ? toJson(modem->ipV4Config()) : QJsonValue::Null);
    const ModemManager::ModemDevice::Ptr device = modemManagerDevice(modem);
    if (device) {
        insertModemManagerMembers(document, device);
    }
    return document;
}

QJsonObject modemConfigDocument(NetworkManager::ModemDevice::Ptr dev, const std::optional<QVariantMap>& secrets)
{
    const NetworkManager::Connection::Ptr profile = DocumentParts::firstAvailableConnection(dev);
    if (!profile) {
        return DocumentParts::unknownConfig(dev);
    }
    QJsonObject document = DocumentParts::ipv4ConfigMembers(profile);
    insertGsmMembers(document, profile, secrets);
    document.insert("interface", dev->interfaceName());
    return document;
}

QJsonObject modemSignalDocument(NetworkManager::ModemDevice::Ptr modem)
{
    const ModemManager::ModemDevice::Ptr device = modemManagerDevice(modem);
    const ModemManager::Modem::Ptr modemInterface = device ? device->modemInterface() : ModemManager::Modem::Ptr();
    if (!modemInterface) {
        return QJsonObject();
    }
    QJsonObject document;
    document.insert("interface", modem->interfaceName());
    document.insert("quality", int(modemInterface->signalQuality().signal));
    return document;
}

QJsonObject modemStatsDocument(const UsageByMonth& stats)
{
    QJsonObject document;
    for (auto period = stats.constBegin(); period != stats.constEnd(); ++period) {
        QJsonObject usage;
        usage.insert("upload", roundedUsage(period.value().value("txbytes", 0)));
        usage.insert("download", roundedUsage(period.value().value("rxbytes", 0)));
        document.insert(period.key(), usage);
    }
    return document;
}

} // namespace Tarvik
