// Config against real files: the INI text it writes, the records it reads and
// the lines it logs (mirrored to standard error and captured there).
#include "config/config.h"
#include "support/stderrcapture.h"

#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>
#include <sys/stat.h>
#include <unistd.h>

using Tarvik::Config;

namespace {

const QByteArray defaultFile =
    "[Ethernet]\naddress=\nautocon=true\ndns0=\ndns1=\ngateway=\nid=Ethernet\nmask=\nmethod=auto\n\n"
    "[Modem]\naddress=\napn=internet\nautocon=true\ndns0=\ngateway=\nid=Broadband\nmethod=auto\nnetmask=\n"
    "network_id=\npassword=\npin=\nusageSec=120\nusername=\n\n"
    "[Mqtt]\nbase=tolv/network\npass=\nport=1883\nurl=localhost\nuser=\n\n"
    "[Wifi]\naddress=\nautocon=true\ndns0=\ndns1=\ngateway=\nid=Wifi\nkey=\nmask=\nmethod=auto\nssid=\n";

const QList<QByteArray> defaultReport {
    "[Config] Application Settings",
    "[Config] -----------------------------------------",
    "[Config] mqtt.url         : localhost",
    "[Config] mqtt.port        : 1883",
    "[Config] mqtt.user        : ",
    "[Config] mqtt.pass        : ",
    "[Config] mqtt.base        : tolv/network",
    "[Config] ethernet.id      : Ethernet",
    "[Config] ethernet.autocon : true",
    "[Config] ethernet.method  : auto",
    "[Config] ethernet.address : ",
    "[Config] ethernet.mask    : ",
    "[Config] ethernet.gateway : ",
    "[Config] ethernet.dns0    : ",
    "[Config] ethernet.dns1    : ",
    "[Config] wifi.id          : Wifi",
    "[Config] wifi.autocon     : true",
    "[Config] wifi.ssid        : ",
    "[Config] wifi.key         : ",
    "[Config] wifi.method      : auto",
    "[Config] wifi.address     : ",
    "[Config] wifi.mask        : ",
    "[Config] wifi.gateway     : ",
    "[Config] wifi.dns0        : ",
    "[Config] wifi.dns1        : ",
    "[Config] modem.id         : Broadband",
    "[Config] modem.autocon    : 1",
    "[Config] modem.username   : ",
    "[Config] modem.password   : ",
    "[Config] modem.apn        : internet",
    "[Config] modem.network_id : ",
    "[Config] modem.pin        : ",
    "[Config] modem.method     : auto",
    "[Config] modem.address    : ",
    "[Config] modem.netmask    : ",
    "[Config] modem.gateway    : ",
    "[Config] modem.dns0       : ",
    "[Config] modem.dns1       : ",
    "[Config] modem.usageSec   : 120",
    "[Config] -----------------------------------------",
};

// The messages that reached standard error, without ident and stamp; a line
// of another shape is kept whole so that a comparison shows it.
QList<QByteArray> messages(const QByteArray& captured)
{
    static const QRegularExpression shape(QStringLiteral("^test_config: \\[[ \\d.]+\\] (.*)$"));
    QList<QByteArray> result;
    for (const QByteArray& line : captured.split('\n')) {
        if (line.isEmpty())
            continue;
        const auto match = shape.match(QString::fromLatin1(line));
        result.append(match.hasMatch() ? match.captured(1).toLatin1() : line);
    }
    return result;
}

struct Constructed {
    std::unique_ptr<Config> config;
    QList<QByteArray> log;
};

Constructed construct(const QString& path)
{
    StderrCapture capture;
    Constructed result;
    result.config = std::make_unique<Config>(path, nullptr);
    result.log = messages(capture.finish());
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
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(bytes), qint64(bytes.size()));
}

QList<QByteArray> notFoundWarnings(const QString& path)
{
    return { "[Config] Config file not found: '" + QFile::encodeName(path) + "'.",
             "[Config] Creating file with default values." };
}

ino_t inodeOf(const QString& path)
{
    struct stat info {};
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 ? info.st_ino : 0;
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

    void missingFileIsCreatedWithDefaults()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("tarvik.conf");
        const Constructed made = construct(path);

        QCOMPARE(made.log, notFoundWarnings(path) + defaultReport);
        QCOMPARE(readFile(path), defaultFile);
    }

    void directoryPathIsTreatedAsMissing()
    {
        QTemporaryDir dir;
        QVERIFY(!Config::fileExists(dir.path()));
        const Constructed made = construct(dir.path());

        QCOMPARE(made.log, notFoundWarnings(dir.path()) + defaultReport);
        QVERIFY(QFileInfo(dir.path()).isDir());
    }

    void emptyPathUsesConfigIniBesideTheProgram()
    {
        const QString path = QCoreApplication::applicationDirPath() + "/config.ini";
        if (QFile::exists(path))
            QSKIP("a config.ini already lies beside the test program");
        const Constructed made = construct(QString());
        const QByteArray fallback = "[Config] Using default config file '" + QFile::encodeName(path) + "'";
        const bool created = QFile::remove(path);

        QCOMPARE(made.log.mid(0, 3), QList<QByteArray>{ fallback } + notFoundWarnings(path));
        QVERIFY(created);
    }

    void valuesConvertLikeQVariant()
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
        QCOMPARE(config.modem().apn, QString("internet"));
        QCOMPARE(made.log.size(), 40);
        QCOMPARE(readFile(path), partial);

        writeFile(path, "[Mqtt]\nport=70000\n");
        QCOMPARE(construct(path).config->mqtt().port, quint16(4464));
    }

    void incompleteFileIsCompletedByTheFirstSetter()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("tarvik.conf");
        writeFile(path, "[Mqtt]\nport=abc\n");
        Constructed made = construct(path);
        made.config->setWifi(made.config->wifi());

        QByteArray expected = defaultFile;
        expected.replace("port=1883", "port=0").replace("dns0=\ngateway=\nid=Broadband", "dns0=\ndns1=\ngateway=\nid=Broadband");
        QCOMPARE(readFile(path), expected);
    }

    void everyFieldSurvivesSettersAndRereading()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("tarvik.conf");
        Constructed first = construct(path);
        Config& config = *first.config;
        const Config::Mqtt& liveMqtt = config.mqtt();

        config.setMqtt({ "broker.lan", 1884, "mqttuser", "mqttpass", "site/net" });
        config.setEthernet({ "Wired1", false,
                             { "manual", "192.168.1.10", "255.255.255.0", "192.168.1.1", "192.168.1.2", "192.168.1.3" } });
        config.setWifi({ "Wlan1", true, "HomeNet", "wifikey",
                         { "manual", "10.1.0.10", "255.255.0.0", "10.1.0.1", "10.1.0.2", "10.1.0.3" } });
        config.setModem({ "Cell1", false, "celluser", "cellpass", "apn.example", "24201", "1234",
                          { "manual", "10.0.0.2", "255.255.255.252", "10.0.0.1", "10.0.0.3", "10.0.0.4" }, 300 });
        QCOMPARE(liveMqtt.url, QString("broker.lan"));

        const QByteArray expectedFile =
            "[Ethernet]\naddress=192.168.1.10\nautocon=false\ndns0=192.168.1.2\ndns1=192.168.1.3\n"
            "gateway=192.168.1.1\nid=Wired1\nmask=255.255.255.0\nmethod=manual\n\n"
            "[Modem]\naddress=10.0.0.2\napn=apn.example\nautocon=false\ndns0=10.0.0.3\ndns1=10.0.0.4\n"
            "gateway=10.0.0.1\nid=Cell1\nmethod=manual\nnetmask=255.255.255.252\nnetwork_id=24201\n"
            "password=cellpass\npin=1234\nusageSec=300\nusername=celluser\n\n"
            "[Mqtt]\nbase=site/net\npass=mqttpass\nport=1884\nurl=broker.lan\nuser=mqttuser\n\n"
            "[Wifi]\naddress=10.1.0.10\nautocon=true\ndns0=10.1.0.2\ndns1=10.1.0.3\ngateway=10.1.0.1\n"
            "id=Wlan1\nkey=wifikey\nmask=255.255.0.0\nmethod=manual\nssid=HomeNet\n";
        QCOMPARE(readFile(path), expectedFile);

        const QList<QByteArray> expectedReport {
            "[Config] Application Settings",
            "[Config] -----------------------------------------",
            "[Config] mqtt.url         : broker.lan",
            "[Config] mqtt.port        : 1884",
            "[Config] mqtt.user        : mqttuser",
            "[Config] mqtt.pass        : mqttpass",
            "[Config] mqtt.base        : site/net",
            "[Config] ethernet.id      : Wired1",
            "[Config] ethernet.autocon : false",
            "[Config] ethernet.method  : manual",
            "[Config] ethernet.address : 192.168.1.10",
            "[Config] ethernet.mask    : 255.255.255.0",
            "[Config] ethernet.gateway : 192.168.1.1",
            "[Config] ethernet.dns0    : 192.168.1.2",
            "[Config] ethernet.dns1    : 192.168.1.3",
            "[Config] wifi.id          : Wlan1",
            "[Config] wifi.autocon     : true",
            "[Config] wifi.ssid        : HomeNet",
            "[Config] wifi.key         : wifikey",
            "[Config] wifi.method      : manual",
            "[Config] wifi.address     : 10.1.0.10",
            "[Config] wifi.mask        : 255.255.0.0",
            "[Config] wifi.gateway     : 10.1.0.1",
            "[Config] wifi.dns0        : 10.1.0.2",
            "[Config] wifi.dns1        : 10.1.0.3",
            "[Config] modem.id         : Cell1",
            "[Config] modem.autocon    : 0",
            "[Config] modem.username   : celluser",
            "[Config] modem.password   : cellpass",
            "[Config] modem.apn        : apn.example",
            "[Config] modem.network_id : 24201",
            "[Config] modem.pin        : 1234",
            "[Config] modem.method     : manual",
            "[Config] modem.address    : 10.0.0.2",
            "[Config] modem.netmask    : 10.0.0.2",
            "[Config] modem.gateway    : 10.0.0.1",
            "[Config] modem.dns0       : 10.0.0.3",
            "[Config] modem.dns1       : 10.0.0.4",
            "[Config] modem.usageSec   : 300",
            "[Config] -----------------------------------------",
        };
        const Constructed second = construct(path);
        QCOMPARE(second.log, expectedReport);
        QCOMPARE(second.config->modem().ipv4.netmask, QString("255.255.255.252"));
    }

    // A reader never sees a half-written file: the setter writes a new file
    // and renames it over the old one. A hard link to the old file keeps the
    // old bytes, and the path names a new inode afterwards.
    void setterReplacesTheFileAtomically()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("tarvik.conf");
        Constructed made = construct(path);
        const QString link = dir.filePath("previous");
        QVERIFY(::link(QFile::encodeName(path).constData(), QFile::encodeName(link).constData()) == 0);
        const ino_t before = inodeOf(path);

        Config::Wifi wifi = made.config->wifi();
        wifi.ssid = "Replaced";
        made.config->setWifi(wifi);

        QVERIFY(inodeOf(path) != before);
        QCOMPARE(readFile(link), defaultFile);
        QVERIFY(readFile(path).contains("ssid=Replaced\n"));
        QCOMPARE(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden), QStringList({ "previous", "tarvik.conf" }));
    }
};

QTEST_GUILESS_MAIN(TestConfig)
#include "test_config.moc"
