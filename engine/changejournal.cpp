#include "engine/changejournal.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>

namespace Tarvik {

ChangeJournal::ChangeJournal(const QString& path)
    : m_path(path)
{
}

bool ChangeJournal::write(const QList<JournalEntry>& entries) const
{
    if (entries.isEmpty())
        return QFile::remove(m_path) || !QFile::exists(m_path);
    QJsonArray array;
    for (const JournalEntry& entry : entries) {
        array.append(QJsonObject{{"id", entry.id}, {"command", entry.command}, {"interface", entry.interface},
                                 {"checkpoint", entry.checkpoint}, {"deadline", entry.deadline},
                                 {"payload", entry.payload}});
    }
    QDir().mkpath(QFileInfo(m_path).absolutePath());
    QSaveFile file(m_path);
    return file.open(QIODevice::WriteOnly) && file.write(QJsonDocument(array).toJson()) >= 0 && file.commit();
}

QList<JournalEntry> ChangeJournal::read() const
{
    QFile file(m_path);
    QList<JournalEntry> entries;
    if (!file.open(QIODevice::ReadOnly))
        return entries;
    for (const QJsonValue& value : QJsonDocument::fromJson(file.readAll()).array()) {
        const QJsonObject object = value.toObject();
        entries.append({object.value("id").toString(), object.value("command").toString(),
                        object.value("interface").toString(), object.value("checkpoint").toString(),
                        qint64(object.value("deadline").toDouble()), object.value("payload").toObject()});
    }
    return entries;
}

} // namespace Tarvik
