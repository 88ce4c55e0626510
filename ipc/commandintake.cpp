#include "ipc/commandintake.h"

#include "vocabulary/clienttext.h"

#include <QJsonDocument>
#include <QJsonParseError>

namespace Tarvik {

Command parseCommand(const QString& topic, const QByteArray& payload, const QString& base)
{
    Command command;
    QString name = topic;
    name.remove(base + QLatin1Char('/'));
    command.name = clientText(name);

    if (payload.size() > maxCommandPayloadBytes) {
        command.error = QStringLiteral("Payload too large: %1 bytes (at most %2)")
                            .arg(payload.size())
                            .arg(maxCommandPayloadBytes);
        return command;
    }
    if (payload.isEmpty()) {
        return command;
    }
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(payload, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        command.error = QStringLiteral("Json parse error: ") + parseError.errorString();
        return command;
    }
    command.data = document.object();
    return command;
}

} // namespace Tarvik
