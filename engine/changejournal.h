#pragma once

#include <QJsonObject>
#include <QList>
#include <QString>

namespace Tarvik {

// A change waiting for confirmation, kept on disk beside the statistics so that a tarvik killed inside the
// window can resolve it when it starts again.
struct JournalEntry {
    QString id;
    QString command;
    QString interface;
    QString checkpoint;
    qint64 deadline = 0;
    QJsonObject payload;
};

class ChangeJournal
{
public:
    explicit ChangeJournal(const QString& path);

    // Replaces the file as a whole (a crash leaves the old one or the new one); none left removes it.
    bool write(const QList<JournalEntry>& entries) const;
    QList<JournalEntry> read() const;

private:
    const QString m_path;
};

} // namespace Tarvik
