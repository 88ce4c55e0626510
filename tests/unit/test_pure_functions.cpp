// The parts of tarvik that need neither a bus nor a broker: the reading of a
// command, the comparison of a profile's IPv4 settings with the configuration,
// the update map that goes to NetworkManager, and the arithmetic of the data
// usage and its document.
#include "documents/documents.h"
#include "engine/datausage.h"
#include "engine/profilesettings.h"
#include "ipc/commandintake.h"

#include <NetworkManagerQt/GsmSetting>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QtTest>

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

    void updateNamesEmptyGsmSecretsAndCanGoWithoutThem()
    {
        NetworkManager::ConnectionSettings::Ptr wired(
            new NetworkManager::ConnectionSettings(NetworkManager::ConnectionSettings::Wired));
        const UpdateMap update = updateMapOf(wired);
        QCOMPARE(update.settings.value("gsm"), (QVariantMap{{"password", QString()}, {"pin", QString()}}));
        QVERIFY(!update.withoutAddedKeys().contains("gsm"));

        const QString invalid = "org.freedesktop.NetworkManager.Settings.Connection.InvalidProperty";
        QVERIFY(update.refusesAddedKey(invalid, "gsm.password: property is empty"));
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
};

QTEST_GUILESS_MAIN(TestPureFunctions)
#include "test_pure_functions.moc"
