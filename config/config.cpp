#include "config/config.h"

#include <QCoreApplication>
#include <QFileInfo>

namespace Tarvik {

namespace {

// QString arguments of the report travel as local 8-bit C strings.
QByteArray text(const QString& value)
{
    return value.toLocal8Bit();
}

const char* flagText(bool value)
{
    return value ? "true" : "false";
}

} // namespace

Config::Config(const QString& fileName, QObject* parent)
    : QObject(parent)
{
    QString path = fileName;
    if (path.isEmpty()) {
        path = QCoreApplication::applicationDirPath() + "/config.ini";
        log(Log::Warning, "Using default config file '%s'", text(path).constData());
    }

    m_settings = new QSettings(path, QSettings::NativeFormat, this);

    if (!fileExists(path)) {
        log(Log::Warning, "Config file not found: '%s'.", text(path).constData());
        log(Log::Warning, "Creating file with default values.");
        writeDefaultConfiguration();
    }

    readConfiguration();
    printConfiguration();
}

Config::~Config() = default;

const Config::Mqtt& Config::mqtt() const
{
    return m_mqtt;
}

const Config::Ethernet& Config::ethernet() const
{
    return m_ethernet;
}

const Config::Wifi& Config::wifi() const
{
    return m_wifi;
}

const Config::Modem& Config::modem() const
{
    return m_modem;
}

void Config::setMqtt(const Mqtt& mqtt)
{
    m_mqtt = mqtt;
    writeConfiguration();
}

void Config::setEthernet(const Ethernet& ethernet)
{
    m_ethernet = ethernet;
    writeConfiguration();
}

void Config::setWifi(const Wifi& wifi)
{
    m_wifi = wifi;
    writeConfiguration();
}

void Config::setModem(const Modem& modem)
{
    m_modem = modem;
    writeConfiguration();
}

namespace {

// The six IPv4 keys of a device group; the mask key is named differently per group.
Config::Ipv4Config readIpv4(QSettings& s, const QString& group, const QString& maskKey)
{
    Config::Ipv4Config ipv4;
    ipv4.method = s.value(group + "/method", "auto").toString();
    ipv4.address = s.value(group + "/address", "").toString();
    ipv4.netmask = s.value(group + "/" + maskKey, "").toString();
    ipv4.gateway = s.value(group + "/gateway", "").toString();
    ipv4.dns0 = s.value(group + "/dns0", "").toString();
    ipv4.dns1 = s.value(group + "/dns1", "").toString();
    return ipv4;
}

void writeIpv4(QSettings& s, const QString& group, const QString& maskKey, const Config::Ipv4Config& ipv4)
{
    s.setValue(group + "/method", ipv4.method);
    s.setValue(group + "/address", ipv4.address);
    s.setValue(group + "/" + maskKey, ipv4.netmask);
    s.setValue(group + "/gateway", ipv4.gateway);
    s.setValue(group + "/dns0", ipv4.dns0);
    s.setValue(group + "/dns1", ipv4.dns1);
}

} // namespace

void Config::readConfiguration()
{
    QSettings& s = *m_settings;

    m_mqtt.url = s.value("Mqtt/url", "localhost").toString();
    m_mqtt.port = static_cast<quint16>(s.value("Mqtt/port", 1883).toUInt());
    m_mqtt.user = s.value("Mqtt/user", "").toString();
    m_mqtt.pass = s.value("Mqtt/pass", "").toString();
    m_mqtt.base = s.value("Mqtt/base", "tolv/network").toString();

    m_ethernet.id = s.value("Ethernet/id", "Ethernet").toString();
    m_ethernet.autocon = s.value("Ethernet/autocon", true).toBool();
    m_ethernet.ipv4 = readIpv4(s, "Ethernet", "mask");

    m_wifi.id = s.value("Wifi/id", "Wifi").toString();
    m_wifi.autocon = s.value("Wifi/autocon", true).toBool();
    m_wifi.ssid = s.value("Wifi/ssid", "").toString();
    m_wifi.key = s.value("Wifi/key", "").toString();
    m_wifi.ipv4 = readIpv4(s, "Wifi", "mask");

    m_modem.id = s.value("Modem/id", "Broadband").toString();
    m_modem.autocon = s.value("Modem/autocon", true).toBool();
    m_modem.username = s.value("Modem/username", "").toString();
    m_modem.password = s.value("Modem/password", "").toString();
    m_modem.apn = s.value("Modem/apn", "internet").toString();
    m_modem.networkId = s.value("Modem/network_id", "").toString();
    m_modem.pin = s.value("Modem/pin", "").toString();
    m_modem.ipv4 = readIpv4(s, "Modem", "netmask");
    m_modem.usageSec = s.value("Modem/usageSec", 120).toInt();
}

void Config::writeConfiguration()
{
    QSettings& s = *m_settings;

    s.setValue("Mqtt/url", m_mqtt.url);
    s.setValue("Mqtt/port", int(m_mqtt.port));
    s.setValue("Mqtt/user", m_mqtt.user);
    s.setValue("Mqtt/pass", m_mqtt.pass);
    s.setValue("Mqtt/base", m_mqtt.base);

    s.setValue("Ethernet/id", m_ethernet.id);
    s.setValue("Ethernet/autocon", m_ethernet.autocon);
    writeIpv4(s, "Ethernet", "mask", m_ethernet.ipv4);

    s.setValue("Wifi/id", m_wifi.id);
    s.setValue("Wifi/autocon", m_wifi.autocon);
    s.setValue("Wifi/ssid", m_wifi.ssid);
    s.setValue("Wifi/key", m_wifi.key);
    writeIpv4(s, "Wifi", "mask", m_wifi.ipv4);

    s.setValue("Modem/id", m_modem.id);
    s.setValue("Modem/autocon", m_modem.autocon);
    s.setValue("Modem/username", m_modem.username);
    s.setValue("Modem/password", m_modem.password);
    s.setValue("Modem/apn", m_modem.apn);
    s.setValue("Modem/network_id", m_modem.networkId);
    s.setValue("Modem/pin", m_modem.pin);
    writeIpv4(s, "Modem", "netmask", m_modem.ipv4);
    s.setValue("Modem/usageSec", uint(m_modem.usageSec));

    s.sync();
}

void Config::writeDefaultConfiguration()
{
    QSettings& s = *m_settings;

    s.setValue("Mqtt/url", QString("localhost"));
    s.setValue("Mqtt/port", 1883);
    s.setValue("Mqtt/user", QString());
    s.setValue("Mqtt/pass", QString());
    s.setValue("Mqtt/base", QString("tolv/network"));

    s.setValue("Ethernet/id", QString("Ethernet"));
    s.setValue("Ethernet/autocon", true);
    s.setValue("Ethernet/method", QString("auto"));
    s.setValue("Ethernet/address", QString());
    s.setValue("Ethernet/mask", QString());
    s.setValue("Ethernet/gateway", QString());
    s.setValue("Ethernet/dns0", QString());
    s.setValue("Ethernet/dns1", QString());

    s.setValue("Wifi/id", QString("Wifi"));
    s.setValue("Wifi/autocon", true);
    s.setValue("Wifi/ssid", QString());
    s.setValue("Wifi/key", QString());
    s.setValue("Wifi/method", QString("auto"));
    s.setValue("Wifi/address", QString());
    s.setValue("Wifi/mask", QString());
    s.setValue("Wifi/gateway", QString());
    s.setValue("Wifi/dns0", QString());
    s.setValue("Wifi/dns1", QString());

    s.setValue("Modem/id", QString("Broadband"));
    s.setValue("Modem/autocon", true);
    s.setValue("Modem/username", QString());
    s.setValue("Modem/password", QString());
    s.setValue("Modem/apn", QString("internet"));
    s.setValue("Modem/network_id", QString());
    s.setValue("Modem/pin", QString());
    s.setValue("Modem/method", QString("auto"));
    s.setValue("Modem/address", QString());
    s.setValue("Modem/netmask", QString());
    s.setValue("Modem/gateway", QString());
    s.setValue("Modem/dns0", QString());
    // The default file has always set dns0 twice and left dns1 out; readers
    // get the empty default and the first setter adds the key.
    s.setValue("Modem/dns0", QString());
    s.setValue("Modem/usageSec", 120u);

    s.sync();
}

void Config::printConfiguration()
{
    log(Log::Info, "Application Settings");
    log(Log::Info, "-----------------------------------------");
    log(Log::Info, "mqtt.url         : %s", text(m_mqtt.url).constData());
    log(Log::Info, "mqtt.port        : %u", uint(m_mqtt.port));
    log(Log::Info, "mqtt.user        : %s", text(m_mqtt.user).constData());
    log(Log::Info, "mqtt.pass        : %s", text(m_mqtt.pass).constData());
    log(Log::Info, "mqtt.base        : %s", text(m_mqtt.base).constData());
    log(Log::Info, "ethernet.id      : %s", text(m_ethernet.id).constData());
    log(Log::Info, "ethernet.autocon : %s", flagText(m_ethernet.autocon));
    log(Log::Info, "ethernet.method  : %s", text(m_ethernet.ipv4.method).constData());
    log(Log::Info, "ethernet.address : %s", text(m_ethernet.ipv4.address).constData());
    log(Log::Info, "ethernet.mask    : %s", text(m_ethernet.ipv4.netmask).constData());
    log(Log::Info, "ethernet.gateway : %s", text(m_ethernet.ipv4.gateway).constData());
    log(Log::Info, "ethernet.dns0    : %s", text(m_ethernet.ipv4.dns0).constData());
    log(Log::Info, "ethernet.dns1    : %s", text(m_ethernet.ipv4.dns1).constData());
    log(Log::Info, "wifi.id          : %s", text(m_wifi.id).constData());
    log(Log::Info, "wifi.autocon     : %s", flagText(m_wifi.autocon));
    log(Log::Info, "wifi.ssid        : %s", text(m_wifi.ssid).constData());
    log(Log::Info, "wifi.key         : %s", text(m_wifi.key).constData());
    log(Log::Info, "wifi.method      : %s", text(m_wifi.ipv4.method).constData());
    log(Log::Info, "wifi.address     : %s", text(m_wifi.ipv4.address).constData());
    log(Log::Info, "wifi.mask        : %s", text(m_wifi.ipv4.netmask).constData());
    log(Log::Info, "wifi.gateway     : %s", text(m_wifi.ipv4.gateway).constData());
    log(Log::Info, "wifi.dns0        : %s", text(m_wifi.ipv4.dns0).constData());
    log(Log::Info, "wifi.dns1        : %s", text(m_wifi.ipv4.dns1).constData());
    log(Log::Info, "modem.id         : %s", text(m_modem.id).constData());
    log(Log::Info, "modem.autocon    : %d", int(m_modem.autocon));
    log(Log::Info, "modem.username   : %s", text(m_modem.username).constData());
    log(Log::Info, "modem.password   : %s", text(m_modem.password).constData());
    log(Log::Info, "modem.apn        : %s", text(m_modem.apn).constData());
    log(Log::Info, "modem.network_id : %s", text(m_modem.networkId).constData());
    log(Log::Info, "modem.pin        : %s", text(m_modem.pin).constData());
    log(Log::Info, "modem.method     : %s", text(m_modem.ipv4.method).constData());
    log(Log::Info, "modem.address    : %s", text(m_modem.ipv4.address).constData());
    // The report has always shown the address on the netmask line; kept so the log reads the same.
    log(Log::Info, "modem.netmask    : %s", text(m_modem.ipv4.address).constData());
    log(Log::Info, "modem.gateway    : %s", text(m_modem.ipv4.gateway).constData());
    log(Log::Info, "modem.dns0       : %s", text(m_modem.ipv4.dns0).constData());
    log(Log::Info, "modem.dns1       : %s", text(m_modem.ipv4.dns1).constData());
    log(Log::Info, "modem.usageSec   : %d", m_modem.usageSec);
    log(Log::Info, "-----------------------------------------");
}

bool Config::fileExists(const QString& path)
{
    const QFileInfo info(path);
    return info.exists() && info.isFile();
}

void Config::log(Log::Level level, const char* format, ...)
{
    const QByteArray tagged = (QString("[Config] ") + QString::fromUtf8(format)).toLocal8Bit();
    va_list args;
    va_start(args, format);
    Log::vprint(level, tagged.constData(), args);
    va_end(args);
}

} // namespace Tarvik

#include "moc_config.cpp"
