// Config against real files: the INI text it writes, the records it reads and
// the report it logs (mirrored to standard error and captured there).
#include "config/config.h"
#include "support/logcapture.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>
#include <unistd.h>

using Tarvik::Config;
using TarvikTest::LogCapture;

namespace {

const QByteArray defaultFile =
    "[Ethernet]\naddress=\nautocon=true\ndns0=\ndns1=\ngateway=\nid=Ethernet\nmask=\nmethod=auto\n\n"
    "[Modem]\naddress=\napn=internet\nautocon=true\ndns0=\ngateway=\nid=Broadband\nmethod=auto\nnetmask=\n"
    "network_id=\npassword=\npin=\nusageSec=120\nusername=\n\n"
    "[Mqtt]\nbase=tolv/network\npass=\nport=1883\nurl=localhost\nuser=\n\n"
    "[Wifi]\naddress=\nautocon=true\ndns0=\ndns1=\ngateway=\nid=Wifi\nkey=\nmask=\nmethod=auto\nssid=\n";

// The report's lines in order after setAll(): label, value.
const QList<QPair<const char*, const char*>> reportLines {
    {"mqtt.url", "broker.lan"}, {"mqtt.port", "1884"}, {"mqtt.user", "mqttuser"}, {"mqtt.pass", "mqttpass"},
    {"mqtt.base", "site/net"}, {"ethernet.id", "Wired1"}, {"ethernet.autocon", "false"}, {"ethernet.method", "manual"},
    {"ethernet.address", "192.168.1.10"}, {"ethernet.mask", "255.255.255.0"}, {"ethernet.gateway", "192.168.1.1"},
    {"ethernet.dns0", "192.168.1.2"}, {"ethernet.dns1", "192.168.1.3"}, {"wifi.id", "Wlan1"}, {"wifi.autocon", "true"},
    {"wifi.ssid", "HomeNet"}, {"wifi.key", "wifikey"}, {"wifi.method", "manual"}, {"wifi.address", "10.1.0.10"},
    {"wifi.mask", "255.255.0.0"}, {"wifi.gateway", "10.1.0.1"}, {"wifi.dns0", "10.1.0.2"}, {"wifi.dns1", "10.1.0.3"},
    // The modem's flag reads as a number, and its netmask line shows the address.
    {"modem.id", "Cell1"}, {"modem.autocon", "0"}, {"modem.username", "celluser"}, {"modem.password", "cellpass"},
    {"modem.apn", "apn.example"}, {"modem.network_id", "24201"}, {"modem.pin", "1234"}, {"modem.method", "manual"},
    {"modem.address", "10.0.0.2"}, {"modem.netmask", "10.0.0.2"}, {"modem.gateway", "10.0.0.1"},
    {"modem.dns0", "10.0.0.3"}, {"modem.dns1", "10.0.0.4"}, {"modem.usageSec", "300"},
};

QStringList report()
{
    const QString rule = "[Config] " + QString(41, '-');
    QStringList lines{"[Config] Application Settings", rule};
    for (const auto& line : reportLines)
        lines << QString("[Config] %1 : %2").arg(QString(line.first).leftJustified(16), line.second);
    return lines << rule;
}

void setAll(Config& config)
{
    config.setMqtt({"broker.lan", 1884, "mqttuser", "mqttpass", "site/net"});
    config.setEthernet(
        {"Wired1", false, {"manual", "192.168.1.10", "255.255.255.0", "192.168.1.1", "192.168.1.2", "192.168.1.3"}});
    config.setWifi({"Wlan1", true, "HomeNet", "wifikey",
                    {"manual", "10.1.0.10", "255.255.0.0", "10.1.0.1", "10.1.0.2", "10.1.0.3"}});
    config.setModem({"Cell1", false, "celluser", "cellpass", "apn.example", "24201", "1234",
                     {"manual", "10.0.0.2", "255.255.255.252", "10.0.0.1", "10.0.0.3", "10.0.0.4"}, 300});
}

struct Constructed {
    std::unique_ptr<Config> config;
    QStringList log;
};

Constructed construct(const QString& path)
{
    LogCapture capture;
    Constructed result{std::make_unique<Config>(path, nullptr), {}};
    result.log = capture.messages();
    return result;
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

void writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
}

} // namespace

class TestConfig : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Log::open("test_config", true, false);
        Log::setLevel(Log::Info);
    }

    void missingFileIsCreatedWithDefaults_data()
    {
        QTest::addColumn<QString>("given");
        QTest::newRow("missing file") << "tarvik.conf";
        QTest::newRow("a directory counts as missing") << ".";
        QTest::newRow("no path: config.ini beside the program") << "";
    }

    void missingFileIsCreatedWithDefaults()
    {
        QFETCH(QString, given);
        QTemporaryDir dir;
        const bool none = given.isEmpty();
        const QString path =
            none ? QCoreApplication::applicationDirPath() + "/config.ini" : QDir::cleanPath(dir.filePath(given));
        if (none && QFile::exists(path))
            QSKIP("a config.ini already lies beside the test program");
        const Constructed made = construct(none ? QString() : path);
        const QByteArray written = readFile(path);
        if (none)
            QVERIFY(QFile::remove(path));

        QStringList expected{
            "[Config] Config file not found: '" + path + "'.", "[Config] Creating file with default values."};
        if (none)
            expected.prepend("[Config] Using default config file '" + path + "'");
        QCOMPARE(made.log.mid(0, made.log.size() - report().size()), expected);
        QCOMPARE(written, QFileInfo(path).isDir() ? QByteArray("<unreadable>") : defaultFile);
    }

    void valuesConvertLikeQVariantAndTheFileIsLeftAsItIs()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("tarvik.conf");
        const QByteArray partial = "[Mqtt]\nport=abc\n\n[Modem]\nusageSec=soon\nautocon=no\n\n"
                                   "[Ethernet]\nautocon=FALSE\n\n[Wifi]\nautocon=0\n";
        writeFile(path, partial);
        Constructed made = construct(path);
        const Config& config = *made.config;
        QCOMPARE(config.mqtt().port, quint16(0));
        QCOMPARE(config.mqtt().url, QString("localhost"));
        QCOMPARE(config.modem().usageSec, 0);
        QCOMPARE(config.modem().autocon, true);
        QCOMPARE(config.ethernet().autocon, false);
        QCOMPARE(config.wifi().autocon, false);
        QCOMPARE(made.log.size(), report().size());
        QCOMPARE(readFile(path), partial);

        writeFile(path, "[Mqtt]\nport=70000\n");
        QCOMPARE(construct(path).config->mqtt().port, quint16(4464));
    }

    // Each setter writes the whole file anew, the key the default file lacks
    // included, and renames it over the old one: a reader never sees a
    // half-written file, and a hard link keeps the old bytes.
    void settersReplaceTheFileAndEveryFieldIsReadBack()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("tarvik.conf");
        Constructed first = construct(path);
        const QString link = dir.filePath("previous");
        QVERIFY(::link(QFile::encodeName(path).constData(), QFile::encodeName(link).constData()) == 0);
        const Config::Mqtt& liveMqtt = first.config->mqtt();
        setAll(*first.config);
        QCOMPARE(liveMqtt.url, QString("broker.lan"));
        QCOMPARE(readFile(link), defaultFile);
        QCOMPARE(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden), QStringList({"previous", "tarvik.conf"}));
        // The text users find in their file, the key the default file lacks included.
        QCOMPARE(readFile(path),
            QByteArray("[Ethernet]\naddress=192.168.1.10\nautocon=false\ndns0=192.168.1.2\ndns1=192.168.1.3\n"
                       "gateway=192.168.1.1\nid=Wired1\nmask=255.255.255.0\nmethod=manual\n\n"
                       "[Modem]\naddress=10.0.0.2\napn=apn.example\nautocon=false\ndns0=10.0.0.3\ndns1=10.0.0.4\n"
                       "gateway=10.0.0.1\nid=Cell1\nmethod=manual\nnetmask=255.255.255.252\nnetwork_id=24201\n"
                       "password=cellpass\npin=1234\nusageSec=300\nusername=celluser\n\n"
                       "[Mqtt]\nbase=site/net\npass=mqttpass\nport=1884\nurl=broker.lan\nuser=mqttuser\n\n"
                       "[Wifi]\naddress=10.1.0.10\nautocon=true\ndns0=10.1.0.2\ndns1=10.1.0.3\ngateway=10.1.0.1\n"
                       "id=Wlan1\nkey=wifikey\nmask=255.255.0.0\nmethod=manual\nssid=HomeNet\n"));

        const Constructed second = construct(path);
        QCOMPARE(second.log, report());
        QCOMPARE(second.config->modem().ipv4.netmask, QString("255.255.255.252"));
    }
};

QTEST_GUILESS_MAIN(TestConfig)
#include "test_config.moc"
