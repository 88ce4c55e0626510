#pragma once

#include "documents/discoverydocuments.h"
#include "log/taggedlog.h"

#include <QByteArray>
#include <QMap>
#include <QObject>
#include <QSet>
#include <QString>
#include <QVector>

namespace Tarvik {

class Config;
class IPC;

// Tells Home Assistant about the gateway through its MQTT discovery convention: one retained document per
// entity, published again when Home Assistant comes online, and removed (an empty retained payload) for a
// device that is gone or when discovery is switched off. The documents left by an earlier run are learnt from
// the broker, which hands back the retained ones on subscription.
class HomeAssistantDiscovery : public QObject
{
    Q_OBJECT

public:
    HomeAssistantDiscovery(IPC* ipc, Config* config, QObject* parent);

    // The gateway's devices as they are now.
    void setDevices(const QVector<GatewayDevice>& devices);
    // Something the documents depend on besides the devices changed (the data plan).
    void refresh();
    void onBrokerConnected();

    // The network devices of the gateway that tarvik publishes documents for.
    static QVector<GatewayDevice> devicesOnBus();

private slots:
    void onWatchedMessage(const QString& topic, const QByteArray& payload);

private:
    // Whether what the broker holds can be judged: before the devices are known, nothing is removed.
    bool settled() const;
    QMap<QString, QByteArray> wanted() const;
    void update(bool again);
    void remove(const QString& topic);

    IPC* m_ipc;
    Config* m_config;
    DiscoveryContext m_context;
    QString m_statusTopic;
    QString m_ownConfigs;
    QVector<GatewayDevice> m_devices;
    bool m_devicesKnown = false;
    QMap<QString, QByteArray> m_wanted;
    // What the broker holds of ours, as last published or seen retained.
    QMap<QString, QByteArray> m_published;
    QSet<QString> m_retained;
    TaggedLog log{"[HomeAssistant] "};
};

} // namespace Tarvik
