#pragma once

#include "config/dataplan.h"
#include "log/taggedlog.h"

#include <QObject>
#include <QSettings>
#include <QString>
#include <QVector>

namespace Tarvik {

// Every setting of the service, kept in one INI file. The file is read once at
// construction; afterwards the records in memory are the truth and each setter
// rewrites the whole file.
class Config : public QObject
{
    Q_OBJECT

public:
    struct Ipv4Config {
        QString method;
        QString address;
        QString netmask;
        QString gateway;
        QString dns0;
        QString dns1;
    };

    struct Mqtt {
        QString url;
        quint16 port = 0;
        QString user;
        QString pass;
        QString base;
    };

    struct Ethernet {
        QString id;
        bool autocon = false;
        Ipv4Config ipv4;
    };

    struct Wifi {
        QString id;
        bool autocon = false;
        QString ssid;
        QString key;
        Ipv4Config ipv4;
    };

    struct Modem {
        QString id;
        bool autocon = false;
        QString username;
        QString password;
        QString apn;
        QString networkId;
        QString pin;
        Ipv4Config ipv4;
        int usageSec = 0;
    };

    // Discovery documents for Home Assistant: read on their own, never written.
    struct HomeAssistant {
        bool enabled = false;
        QString prefix;
        // Empty: the host name.
        QString nodeId;
    };

    Config(const QString& fileName, QObject* parent);
    ~Config() override;

    const Mqtt& mqtt() const;
    const Ethernet& ethernet() const;
    const Wifi& wifi() const;
    const Modem& modem() const;
    // "host:port" whose reachability confirms a change on trial by itself; empty: only a client confirms.
    QString confirmProbe() const;
    const DataPlan& dataPlan() const;
    const HomeAssistant& homeAssistant() const;

    void setMqtt(const Mqtt& mqtt);
    void setEthernet(const Ethernet& ethernet);
    void setWifi(const Wifi& wifi);
    void setModem(const Modem& modem);
    // Writes the plan's keys only: a file that never had them keeps its other keys as they were.
    void setDataPlan(const DataPlan& plan);

    void readConfiguration();
    void writeConfiguration();
    void writeDefaultConfiguration();
    void printConfiguration();

    static bool fileExists(const QString& path);

private:
    struct Key;
    // Every key of the file, in the file's order, with its default and its field.
    static const QVector<Key>& keys();
    void warnUnlessIni(const QString& path);
    void readHomeAssistant();

    QSettings* m_settings = nullptr;
    Mqtt m_mqtt;
    Ethernet m_ethernet;
    Wifi m_wifi;
    Modem m_modem;
    QString m_confirmProbe;
    DataPlan m_dataPlan;
    HomeAssistant m_homeAssistant;
    const TaggedLog log{"[Config] "};
};

} // namespace Tarvik
