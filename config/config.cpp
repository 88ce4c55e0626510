#include "config/config.h"

#include <QCoreApplication>
#include <QFileInfo>

#include <algorithm>
#include <variant>

namespace Tarvik {

namespace {

// QString arguments of the report travel as local 8-bit C strings.
QByteArray text(const QString& value)
{
    return value.toLocal8Bit();
}

// Where a key's value lives in the records; the type says how it is read and written.
using Field = std::variant<QString*, quint16*, bool*, int*>;

} // namespace

struct Config::Key {
    const char* name;
    // The report's label; its line reads "<label padded to 16> : <value>".
    const char* label;
    QVariant fallback;
    Field (*field)(Config&);
    // The value the report shows, when it is not simply the field's own.
    QString (*reportedAs)(const Config&) = nullptr;
    // The default file has always lacked "Modem/dns1": readers get the
    // default, and the first write of the records adds it.
    bool inDefaultFile = true;
};

const QVector<Config::Key>& Config::keys()
{
    static const QVector<Key> table {
        {"Mqtt/url", "mqtt.url", "localhost", [](Config& c) -> Field { return &c.m_mqtt.url; }},
        {"Mqtt/port", "mqtt.port", 1883, [](Config& c) -> Field { return &c.m_mqtt.port; }},
        {"Mqtt/user", "mqtt.user", "", [](Config& c) -> Field { return &c.m_mqtt.user; }},
        {"Mqtt/pass", "mqtt.pass", "", [](Config& c) -> Field { return &c.m_mqtt.pass; }},
        {"Mqtt/base", "mqtt.base", "tolv/network", [](Config& c) -> Field { return &c.m_mqtt.base; }},
        {"Ethernet/id", "ethernet.id", "Ethernet", [](Config& c) -> Field { return &c.m_ethernet.id; }},
        {"Ethernet/autocon", "ethernet.autocon", true, [](Config& c) -> Field { return &c.m_ethernet.autocon; }},
        {"Ethernet/method", "ethernet.method", "auto", [](Config& c) -> Field { return &c.m_ethernet.ipv4.method; }},
        {"Ethernet/address", "ethernet.address", "", [](Config& c) -> Field { return &c.m_ethernet.ipv4.address; }},
        {"Ethernet/mask", "ethernet.mask", "", [](Config& c) -> Field { return &c.m_ethernet.ipv4.netmask; }},
        {"Ethernet/gateway", "ethernet.gateway", "", [](Config& c) -> Field { return &c.m_ethernet.ipv4.gateway; }},
        {"Ethernet/dns0", "ethernet.dns0", "", [](Config& c) -> Field { return &c.m_ethernet.ipv4.dns0; }},
        {"Ethernet/dns1", "ethernet.dns1", "", [](Config& c) -> Field { return &c.m_ethernet.ipv4.dns1; }},
        {"Wifi/id", "wifi.id", "Wifi", [](Config& c) -> Field { return &c.m_wifi.id; }},
        {"Wifi/autocon", "wifi.autocon", true, [](Config& c) -> Field { return &c.m_wifi.autocon; }},
        {"Wifi/ssid", "wifi.ssid", "", [](Config& c) -> Field { return &c.m_wifi.ssid; }},
        {"Wifi/key", "wifi.key", "", [](Config& c) -> Field { return &c.m_wifi.key; }},
        {"Wifi/method", "wifi.method", "auto", [](Config& c) -> Field { return &c.m_wifi.ipv4.method; }},
        {"Wifi/address", "wifi.address", "", [](Config& c) -> Field { return &c.m_wifi.ipv4.address; }},
        {"Wifi/mask", "wifi.mask", "", [](Config& c) -> Field { return &c.m_wifi.ipv4.netmask; }},
        {"Wifi/gateway", "wifi.gateway", "", [](Config& c) -> Field { return &c.m_wifi.ipv4.gateway; }},
        {"Wifi/dns0", "wifi.dns0", "", [](Config& c) -> Field { return &c.m_wifi.ipv4.dns0; }},
        {"Wifi/dns1", "wifi.dns1", "", [](Config& c) -> Field { return &c.m_wifi.ipv4.dns1; }},
        {"Modem/id", "modem.id", "Broadband", [](Config& c) -> Field { return &c.m_modem.id; }},
        // The modem's flag has always been reported as a number, the others as words.
        {"Modem/autocon", "modem.autocon", true, [](Config& c) -> Field { return &c.m_modem.autocon; },
         [](const Config& c) { return QString::number(int(c.m_modem.autocon)); }},
        {"Modem/username", "modem.username", "", [](Config& c) -> Field { return &c.m_modem.username; }},
        {"Modem/password", "modem.password", "", [](Config& c) -> Field { return &c.m_modem.password; }},
        {"Modem/apn", "modem.apn", "internet", [](Config& c) -> Field { return &c.m_modem.apn; }},
        {"Modem/network_id", "modem.network_id", "", [](Config& c) -> Field { return &c.m_modem.networkId; }},
        {"Modem/pin", "modem.pin", "", [](Config& c) -> Field { return &c.m_modem.pin; }},
        {"Modem/method", "modem.method", "auto", [](Config& c) -> Field { return &c.m_modem.ipv4.method; }},
        {"Modem/address", "modem.address", "", [](Config& c) -> Field { return &c.m_modem.ipv4.address; }},
        // The report has always shown the address on the netmask line; kept so the log reads the same.
        {"Modem/netmask", "modem.netmask", "", [](Config& c) -> Field { return &c.m_modem.ipv4.netmask; },
         [](const Config& c) { return c.m_modem.ipv4.address; }},
        {"Modem/gateway", "modem.gateway", "", [](Config& c) -> Field { return &c.m_modem.ipv4.gateway; }},
        {"Modem/dns0", "modem.dns0", "", [](Config& c) -> Field { return &c.m_modem.ipv4.dns0; }},
        {"Modem/dns1", "modem.dns1", "", [](Config& c) -> Field { return &c.m_modem.ipv4.dns1; }, nullptr, false},
        {"Modem/usageSec", "modem.usageSec", 120, [](Config& c) -> Field { return &c.m_modem.usageSec; }},
    };
    return table;
}

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
    } else {
        warnUnlessIni(path);
    }

    readConfiguration();
    // Read on its own, never reported nor written: a file without it reads, logs and is written as before.
    m_confirmProbe = m_settings->value(QStringLiteral("Changes/confirmProbe")).toString();
    // Also read on its own: without these keys the file and the report stay as they always were.
    QStringList refused;
    m_dataPlan = readDataPlan(*m_settings, &refused);
    printConfiguration();
    readHomeAssistant();
    for (const QString& refusal : qAsConst(refused))
        log(Log::Warning, "%s; using the default.", text(refusal).constData());
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

void Config::readHomeAssistant()
{
    const QString defaultPrefix = QStringLiteral("homeassistant");
    m_homeAssistant.enabled = m_settings->value(QStringLiteral("HomeAssistant/enabled"), false).toBool();
    m_homeAssistant.prefix = m_settings->value(QStringLiteral("HomeAssistant/prefix"), defaultPrefix).toString();
    m_homeAssistant.nodeId = m_settings->value(QStringLiteral("HomeAssistant/nodeId")).toString();
    const QString& prefix = m_homeAssistant.prefix;
    // Published under and subscribed to: no wildcards, no empty levels at its ends.
    if (prefix.isEmpty() || prefix.contains(QLatin1Char('+')) || prefix.contains(QLatin1Char('#'))
        || prefix.startsWith(QLatin1Char('/')) || prefix.endsWith(QLatin1Char('/'))) {
        log(Log::Warning, "HomeAssistant/prefix '%s' is no topic name; using the default.", text(prefix).constData());
        m_homeAssistant.prefix = defaultPrefix;
    }
}

const Config::HomeAssistant& Config::homeAssistant() const
{
    return m_homeAssistant;
}

QString Config::confirmProbe() const
{
    return m_confirmProbe;
}

const DataPlan& Config::dataPlan() const
{
    return m_dataPlan;
}

void Config::setDataPlan(const DataPlan& plan)
{
    m_dataPlan = plan;
    writeDataPlan(*m_settings, plan);
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

// How each type of field is read from the file, written to it, and shown in the report.
struct ReadValue {
    const QVariant& value;
    void operator()(QString* field) const { *field = value.toString(); }
    void operator()(quint16* field) const { *field = static_cast<quint16>(value.toUInt()); }
    void operator()(bool* field) const { *field = value.toBool(); }
    void operator()(int* field) const { *field = value.toInt(); }
};

struct StoredValue {
    QVariant operator()(const QString* field) const { return *field; }
    QVariant operator()(const quint16* field) const { return int(*field); }
    QVariant operator()(const bool* field) const { return *field; }
    QVariant operator()(const int* field) const { return uint(*field); }
};

struct ReportedValue {
    QString operator()(const QString* field) const { return *field; }
    QString operator()(const quint16* field) const { return QString::number(*field); }
    QString operator()(const bool* field) const { return *field ? QStringLiteral("true") : QStringLiteral("false"); }
    QString operator()(const int* field) const { return QString::number(*field); }
};

} // namespace

void Config::readConfiguration()
{
    for (const Key& key : keys()) {
        std::visit(ReadValue{m_settings->value(QLatin1String(key.name), key.fallback)}, key.field(*this));
    }
}

void Config::writeConfiguration()
{
    for (const Key& key : keys()) {
        m_settings->setValue(QLatin1String(key.name), std::visit(StoredValue{}, key.field(*this)));
    }
    m_settings->sync();
}

void Config::writeDefaultConfiguration()
{
    for (const Key& key : keys()) {
        if (key.inDefaultFile) {
            m_settings->setValue(QLatin1String(key.name), key.fallback);
        }
    }
    m_settings->sync();
}

void Config::printConfiguration()
{
    const QByteArray rule(41, '-');
    log(Log::Info, "Application Settings");
    log(Log::Info, "%s", rule.constData());
    for (const Key& key : keys()) {
        const QString value = key.reportedAs ? key.reportedAs(*this)
                                             : std::visit(ReportedValue{}, key.field(const_cast<Config&>(*this)));
        log(Log::Info, "%-16s : %s", key.label, text(value).constData());
    }
    log(Log::Info, "%s", rule.constData());
}

void Config::warnUnlessIni(const QString& path)
{
    // QSettings reads what it can and takes the defaults for the rest: a file
    // that is not INI at all would configure nothing, silently.
    const QStringList groups = m_settings->childGroups();
    const bool known = std::any_of(keys().begin(), keys().end(), [&groups](const Key& key) {
        return groups.contains(QString::fromLatin1(key.name).section(QLatin1Char('/'), 0, 0));
    });
    if (m_settings->status() == QSettings::FormatError || !known) {
        log(Log::Warning, "Config file '%s' is not an INI file with the groups Mqtt, Ethernet, Wifi or Modem. "
                          "Using default values.",
            text(path).constData());
    }
}

bool Config::fileExists(const QString& path)
{
    const QFileInfo info(path);
    return info.exists() && info.isFile();
}


} // namespace Tarvik

#include "moc_config.cpp"
