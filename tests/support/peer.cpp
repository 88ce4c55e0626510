#include "support/peer.h"

#include <QtTest>

#include <algorithm>

namespace TarvikTest {

namespace {
constexpr int Deadline = 10000;
}

Peer::Peer(quint16 port)
    : states(&client, &Tarvik::MqttClient::stateChanged)
    , errors(&client, &Tarvik::MqttClient::errorChanged)
    , messages(&client, &Tarvik::MqttClient::messageReceived)
{
    client.setHostname("127.0.0.1");
    client.setPort(port);
}

bool Peer::connectAndWait()
{
    client.connectToHost();
    return QTest::qWaitFor([this] { return client.state() != Tarvik::MqttClient::Connecting; }, Deadline)
        && client.state() == Tarvik::MqttClient::Connected;
}

bool Peer::subscribeAndWait(const QString& filter, const QString& markerTopic)
{
    if (!client.subscribe(filter, 2) || !publish(markerTopic, "marker", 2))
        return false;
    const auto isMarker = [&markerTopic](const QList<QVariant>& message) { return message.at(1) == markerTopic; };
    const bool seen =
        QTest::qWaitFor([&] { return std::any_of(messages.begin(), messages.end(), isMarker); }, Deadline);
    messages.erase(std::remove_if(messages.begin(), messages.end(), isMarker), messages.end());
    return seen;
}

bool Peer::publish(const QString& topic, const QByteArray& payload, int qos, bool retain)
{
    return client.publish(topic, payload, qos, retain) >= 0;
}

QList<QByteArray> Peer::payloads() const
{
    QList<QByteArray> result;
    for (const QList<QVariant>& message : messages)
        result << message.at(0).toByteArray();
    return result;
}

} // namespace TarvikTest
