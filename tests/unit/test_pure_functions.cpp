// The parts of tarvik that need neither a bus nor a broker: the reading of a
// command, the comparison of a profile's IPv4 settings with the configuration,
// the update map that goes to NetworkManager, the arithmetic of the data usage
// and its document, and the vocabulary: the decisions taken on values (a
// device's collapsed state, an access point's security) and the texts clients
// receive where they are not simply the enumerators' names (gaps, misspellings
// kept, fallbacks).
#include "documents/documents.h"
#include "engine/billingcycle.h"
#include "engine/datausage.h"
#include "engine/profilesettings.h"
#include "ipc/commandintake.h"
#include "vocabulary/devicestate.h"
#include "vocabulary/valuenames.h"

#include <NetworkManagerQt/GsmSetting>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QtTest>

#include <climits>
#include <ctime>
#include <initializer_list>

Q_DECLARE_METATYPE(Tarvik::Config::Ipv4Config)

using namespace Tarvik;
using Ipv4 = NetworkManager::Ipv4Setting;

namespace {

using Record = Config::Ipv4Config;
const Record storedRecord{"manual", "192.168.1.20", "255.255.255.0", "192.168.1.1", "9.9.9.9", {}};

Record onlyMethod(const QString& method)
{
    return {method, {}, {}, {}, {}, {}};
}

// The texts of these values, in order.
template<typename Enum>
QStringList texts(QString (*toString)(Enum), std::initializer_list<int> values)
{
    QStringList result;
    for (int value : values)
        result << toString(static_cast<Enum>(value));
    return result;
}

QString collapsedState(NetworkManager::Device::State state)
{
    return deviceStateToString(mapDeviceState(state));
}

// What NetworkManager receives of a setting: method, both address forms, gateway, name servers.
QString sent(const Ipv4::Ptr& setting)
{
    const QVariantMap map = setting->toMap();
    QStringList data;
    for (const QVariantMap& entry : setting->addressData())
        data << entry.value("address").toString() + "/" + entry.value("prefix").toString();
    QStringList addresses;
    for (const NetworkManager::IpAddress& address : setting->addresses())
        addresses << address.ip().toString() + "/" + QString::number(address.prefixLength()) + " via "
                + address.gateway().toString();
    QStringList dns;
    for (const QHostAddress& server : setting->dns())
        dns << server.toString();
    return QStringLiteral("%1 data=[%2] addresses=[%3] gateway=%4 dns=[%5]")
        .arg(map.value("method").toString(), data.join(','), addresses.join(','), setting->gateway(), dns.join(','));
}

} // namespace

class TestPureFunctions : public QObject
{
    Q_OBJECT

private slots:
    void commandFromTopicAndPayload_data()
    {
        QTest::addColumn<QString>("topic");
        QTest::addColumn<QString>("payload");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("data");
        QTest::addColumn<QString>("error");
        QTest::newRow("object") << "wifi/config/set" << R"({"ssid": "HomeNet"})" << "wifi/config/set"
                                << R"({"ssid":"HomeNet"})" << "";
        QTest::newRow("empty") << "wifi/state/get" << "" << "wifi/state/get" << "{}" << "";
        QTest::newRow("array") << "modem/state/get" << "[1, 2]" << "modem/state/get" << "{}" << "";
        QTest::newRow("every occurrence of the base goes") << "tolv/network/get" << "{}" << "get" << "{}" << "";
        QTest::newRow("unparsable") << "status/get" << "{" << "status/get" << "{}"
                                    << "Json parse error: unterminated object";
        QTest::newRow("at the limit") << "status/get" << "{}" + QString(4094, ' ') << "status/get" << "{}" << "";
        QTest::newRow("above the limit") << "status/get" << "{}" + QString(4095, ' ') << "status/get" << "{}"
                                         << "Payload too large: 4097 bytes (at most 4096)";
    }

    void commandFromTopicAndPayload()
    {
        QFETCH(QString, topic);
        QFETCH(QString, payload);
        const Command command = parseCommand("tolv/network/" + topic, payload.toUtf8(), "tolv/network");
        QTEST(command.name, "name");
        QTEST(QString(QJsonDocument(command.data).toJson(QJsonDocument::Compact)), "data");
        QTEST(command.error, "error");
    }

    void ipv4SettingFollowsTheRecord_data()
    {
        QTest::addColumn<Record>("wanted");
        QTest::addColumn<QString>("result");
        QTest::newRow("manual to DHCP drops every form of the address")
            << onlyMethod("auto") << "auto data=[] addresses=[] gateway= dns=[9.9.9.9]";
        QTest::newRow("manual to link-local keeps no address and no name server")
            << onlyMethod("link-local") << "link-local data=[] addresses=[] gateway= dns=[]";
        QTest::newRow("an unknown method means link-local")
            << onlyMethod("") << "link-local data=[] addresses=[] gateway= dns=[]";
        QTest::newRow("new static address, empty first name server skipped")
            << Record{"manual", "10.0.0.7", "255.255.0.0", "10.0.0.1", "", "1.1.1.1"}
            << "manual data=[10.0.0.7/16] addresses=[10.0.0.7/16 via 10.0.0.1] gateway=10.0.0.1 dns=[1.1.1.1]";
    }

    void ipv4SettingFollowsTheRecord()
    {
        QFETCH(Record, wanted);
        QFETCH(QString, result);
        // A static profile as NetworkManager stores it; no change reported while it matches.
        Ipv4::Ptr setting(new Ipv4);
        updateIpv4Configuration(setting, storedRecord);
        setting->fromMap(setting->toMap());
        QVERIFY(!updateIpv4Configuration(setting, storedRecord));
        QVERIFY(updateIpv4Configuration(setting, wanted));
        QCOMPARE(sent(setting), result);
        // Stored and read back, the profile matches the record: no change reported for ever.
        setting->fromMap(setting->toMap());
        QVERIFY(!updateIpv4Configuration(setting, wanted));
    }

    void onlyRefusedEmptyAddedGsmSecretsAreLeftOut()
    {
        NetworkManager::ConnectionSettings::Ptr wired(
            new NetworkManager::ConnectionSettings(NetworkManager::ConnectionSettings::Wired));
        const UpdateMap update = updateMapOf(wired);
        // The wired profile's empty GSM secrets, refused and left out, are proven end to end; other
        // refusals are final.
        const QString invalid = "org.freedesktop.NetworkManager.Settings.Connection.InvalidProperty";
        QVERIFY(!update.refusesAddedKey(invalid, "ipv4.dns: this property is not allowed for 'method=link-local'"));
        QVERIFY(!update.refusesAddedKey("org.freedesktop.NetworkManager.PermissionDenied", "gsm.pin: no"));

        // A modem's own password is no added key: a refusal of it is final.
        NetworkManager::ConnectionSettings::Ptr gsm(
            new NetworkManager::ConnectionSettings(NetworkManager::ConnectionSettings::Gsm));
        const auto secret = gsm->setting(NetworkManager::Setting::Gsm).staticCast<NetworkManager::GsmSetting>();
        secret->setPassword("secret");
        secret->setInitialized(true);
        const UpdateMap modem = updateMapOf(gsm);
        QVERIFY(!modem.refusesAddedKey(invalid, "gsm.password: property is empty"));
        QCOMPARE(modem.withoutAddedKeys().value("gsm").value("password").toString(), QString("secret"));
        QVERIFY(!modem.withoutAddedKeys().value("gsm").contains("pin"));
    }

    void usageCountsModuloTwoToThe32()
    {
        QCOMPARE(DataUsage::addTraffic(100, 5000, 1000), 4100u);
        // The counter restarted below the previous reading: it wraps.
        QCOMPARE(DataUsage::addTraffic(100, 1000, 5000), 100u + (1u << 31) * 2 - 4000u);
        // 64-bit counters lose their high bits.
        QCOMPARE(DataUsage::addTraffic(0, (quint64(2) << 32) + 57, (quint64(2) << 32) + 7), 50u);
    }

    void monthsOlderThanSixAreExpired()
    {
        const QDateTime now(QDate(2019, 7, 15), QTime(12, 0));
        QVERIFY(!DataUsage::isExpired("2019-07", now) && !DataUsage::isExpired("2019-02", now));
        // The sixth month before has passed its first day; a group that is not a month goes too.
        QVERIFY(DataUsage::isExpired("2019-01", now) && DataUsage::isExpired("stats", now));
    }

    void billingCyclesRenewOnTheCycleDayOrTheMonthsLastDay_data()
    {
        QTest::addColumn<QDate>("today");
        QTest::addColumn<int>("cycleDay");
        QTest::addColumn<QString>("cycle");
        QTest::newRow("31 before a leap 29 February") << QDate(2028, 2, 28) << 31 << "2028-01-31 2028-02-28";
        QTest::newRow("31 on a leap 29 February") << QDate(2028, 2, 29) << 31 << "2028-02-29 2028-03-30";
        QTest::newRow("31 on a common 28 February") << QDate(2027, 2, 28) << 31 << "2027-02-28 2027-03-30";
        QTest::newRow("31 before a common 28 February") << QDate(2027, 2, 27) << 31 << "2027-01-31 2027-02-27";
        QTest::newRow("31 in April") << QDate(2027, 4, 30) << 31 << "2027-04-30 2027-05-30";
        QTest::newRow("30 across February") << QDate(2027, 2, 28) << 30 << "2027-02-28 2027-03-29";
        QTest::newRow("15 across the year") << QDate(2027, 1, 14) << 15 << "2026-12-15 2027-01-14";
        QTest::newRow("1 on New Year's Eve") << QDate(2026, 12, 31) << 1 << "2026-12-01 2026-12-31";
    }

    void billingCyclesRenewOnTheCycleDayOrTheMonthsLastDay()
    {
        QFETCH(QDate, today);
        QFETCH(int, cycleDay);
        const BillingCycle cycle = BillingCycle::containing(QDateTime(today, QTime(23, 59)), cycleDay);
        QTEST(cycle.key() + " " + cycle.last.toString(Qt::ISODate), "cycle");
        QCOMPARE(BillingCycle::firstDayOf(cycle.key()), cycle.first);
    }

    void billingCyclesFollowTheLocalClockAcrossDaylightSaving()
    {
        const bool zoneSet = qEnvironmentVariableIsSet("TZ");
        const QByteArray zone = qgetenv("TZ");
        qputenv("TZ", "Europe/Oslo");
        tzset();
        const BillingCycle spring = BillingCycle::containing(QDateTime(QDate(2026, 3, 10), QTime(12, 0)), 31);
        const BillingCycle autumn = BillingCycle::containing(QDateTime(QDate(2026, 10, 10), QTime(12, 0)), 31);
        const qint64 springHours = spring.start().secsTo(spring.end()) / 3600;
        const qint64 autumnHours = autumn.start().secsTo(autumn.end()) / 3600;
        zoneSet ? qputenv("TZ", zone) : qunsetenv("TZ");
        tzset();
        // Clocks go forward on 29 March and back on 25 October 2026: 31 days less or more an hour.
        QCOMPARE(spring.key() + " " + spring.last.toString(Qt::ISODate), QString("2026-02-28 2026-03-30"));
        QCOMPARE(springHours, 31 * 24 - 1);
        QCOMPARE(autumn.key() + " " + autumn.last.toString(Qt::ISODate), QString("2026-09-30 2026-10-30"));
        QCOMPARE(autumnHours, 31 * 24 + 1);
    }

    void publishedUsageIsInMegabytesRoundedToTwoDecimals()
    {
        QTemporaryDir dir;
        QSettings store(dir.filePath("modem.ini"), QSettings::IniFormat);
        store.setValue("2026-10/rxbytes", 1235000u);
        store.setValue("2026-10/txbytes", 1234000u);
        // 2^31 bytes and more come out negative, as clients have always seen them.
        store.setValue("2026-11/rxbytes", 3000000000u);
        store.setValue("2026-12/txbytes", 20500000u);
        const QJsonObject document = modemStatsDocument(DataUsage::megabytesPerMonth(store));
        QCOMPARE(document, (QJsonObject{{"2026-10", QJsonObject{{"download", 1.24}, {"upload", 1.23}}},
                                        {"2026-11", QJsonObject{{"download", -1294.96}, {"upload", 0}}},
                                        {"2026-12", QJsonObject{{"download", 0}, {"upload", 20.5}}}}));
    }

    void deviceStatesCollapseToFive()
    {
        // NetworkManager's device states as they come over the bus, and one it does not define.
        QCOMPARE(texts(collapsedState, {0, 10, 20, 30, 40, 50, 60, 70, 80, 90, 100, 110, 120, 5}),
            QStringList({"Unavailable", "Unavailable", "Unavailable", "Disconnected", "Connecting", "Connecting",
                "Connecting", "Connecting", "Connecting", "Connecting", "Connected", "Disconnecting", "Unavailable",
                "Unavailable"}));
        QCOMPARE(texts(deviceStateToString, {5}), QStringList({"unknown"}));
    }

    void textsAtTheEdgesOfTheTables()
    {
        // Clients have always received this spelling.
        QCOMPARE(texts(deviceTypeToString, {0, 19, 20}), QStringList({"UnkownType", "Veth", "unknown"}));
        // Reason 2 has no text of its own.
        QCOMPARE(texts(stateChangeReasonToString, {1, 2, 3, 62, 63}),
            QStringList({"NoReason", "unknown", "NowUnmanagedReason", "ParentManagedChanged", "unknown"}));
        // The broker's refusals keep their CONNACK numbers; the client's own errors start at 256.
        QCOMPARE(texts(mqttErrorToString, {5, 6, 255, 256, 258, 259}),
            QStringList({"NotAuthorized", "unknown", "unknown", "TransportInvalid", "UnknownError", "unknown"}));
        QCOMPARE(texts(statusToString, {8}) + texts(connectivityToString, {5}) + texts(apModeToString, {3, 4})
                + texts(ipv4SettingMethodToString, {5}) + QStringList(apSecurity(NetworkManager::AccessPoint::Ptr())),
            QStringList({"unknown", "unknown", "apmode", "unknown", "unknown", "unknown"}));

        for (int method = Ipv4::Automatic; method <= Ipv4::Disabled; ++method) {
            const auto configMethod = Ipv4::ConfigMethod(method);
            QCOMPARE(ipv4SettingMethodFromString(ipv4SettingMethodToString(configMethod)), configMethod);
        }
        // Only the exact text counts; anything else means automatic.
        for (const char* text : {"Manual", "shared ", "unknown", ""})
            QCOMPARE(ipv4SettingMethodFromString(text), Ipv4::Automatic);
    }

    void accessPointSecurityFromFlags()
    {
        const struct {
            uint capabilities;
            int wpa;
            int rsn;
            const char* security;
        } rows[] = {
            {0, 0, 0, "none"}, {1, 0, 0, "wep"}, {1, 0x148, 0, "wpa1"}, {1, 0, 0x188, "wpa2"},
            {1, 0x148, 0x188, "wpa1-wpa2"}, {3, 0, 0x188, "wpa2"},
            // Flags without the privacy bit, or negative ones, say nothing trustworthy.
            {0, 0, 0x188, "unknown"}, {0, 0x148, 0, "unknown"}, {2, 0, 0, "unknown"}, {1, INT_MIN, 0, "unknown"},
            {1, 0, -1, "unknown"},
        };
        for (const auto& row : rows) {
            QVERIFY2(apSecurityToString(apSecurityFromFlags(row.capabilities, row.wpa, row.rsn)) == row.security,
                qPrintable(QString("%1 %2 %3").arg(row.capabilities).arg(row.wpa).arg(row.rsn)));
        }
    }
};

QTEST_GUILESS_MAIN(TestPureFunctions)
#include "test_pure_functions.moc"
