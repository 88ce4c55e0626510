#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

namespace Tarvik {

// A gateway's commands are a few hundred bytes; anything much larger is refused unread.
constexpr int maxCommandPayloadBytes = 4096;

// A message received on a command topic, as the engine is to see it.
struct Command {
    // The topic without the base, cut and made printable when it is too long to be a command name.
    QString name;
    QJsonObject data;
    // Set when the message is refused: the text of the error document.
    QString error;
};

// Strips every occurrence of "<base>/" from the topic and parses the payload:
// empty, or JSON whose top-level object becomes the data (anything else gives
// an empty object). A payload above the limit or JSON that does not parse is refused.
Command parseCommand(const QString& topic, const QByteArray& payload, const QString& base);

} // namespace Tarvik
