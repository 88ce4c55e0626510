#pragma once

#include "ipc/mqttclient.h"

#include <QSignalSpy>

namespace TarvikTest {

// A client of the test's own on the broker, with spies on all it reports.
struct Peer {
    explicit Peer(quint16 port);

    // True once the session is up; false as soon as it failed.
    bool connectAndWait();
    // Subscribes at QoS 2 and returns once the subscription is in place: the
    // broker handles one client's packets in order, so when a marker sent on
    // a topic the filter matches comes back, it holds for everybody's
    // messages, and the retained ones have come. The marker is not kept.
    bool subscribeAndWait(const QString& filter, const QString& markerTopic);
    bool publish(const QString& topic, const QByteArray& payload, int qos = 1, bool retain = false);
    // The payloads received so far, in order.
    QList<QByteArray> payloads() const;

    Tarvik::MqttClient client;
    QSignalSpy states;
    QSignalSpy errors;
    QSignalSpy messages;
};

} // namespace TarvikTest
