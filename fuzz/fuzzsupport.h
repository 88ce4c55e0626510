#pragma once

// What the fuzz targets share: a way to fail loudly, quiet Qt, and files to hand the readers.

#include <QByteArray>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QSettings>
#include <QString>
#include <QTemporaryDir>
#include <QVariant>
#include <QtGlobal>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace FuzzSupport {

// A property every input must keep; a broken one ends the run like a crash, so libFuzzer keeps the input.
inline void require(bool condition, const char* what)
{
    if (!condition) {
        fprintf(stderr, "fuzz: property broken: %s\n", what);
        abort();
    }
}

// Qt's warnings about odd files would flood the output and cost more than the reading itself.
// Installed before libFuzzer starts, in every target.
__attribute__((constructor)) static void quietQt()
{
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext&, const QString& message) {
        if (type == QtFatalMsg) {
            fprintf(stderr, "%s\n", qPrintable(message));
            abort();
        }
    });
}

// No ASCII control character: what tarvik repeats must not be able to forge a log line.
inline bool isPrintable(const QString& text)
{
    return std::none_of(text.begin(), text.end(), [](QChar c) { return c.unicode() < 0x20 || c.unicode() == 0x7f; });
}

// Coverage of what Qt's parsers, which are not instrumented, made of the input: libFuzzer counts
// these beside the compiler's counters, so an input that gives a key a new kind of value is kept
// as one that reaches new code is.
inline uint8_t shapeCounters[4096] __attribute__((section("__libfuzzer_extra_counters")));

// A value as read from an INI file, in a few classes.
inline uint32_t shapeOf(const QVariant& value)
{
    if (value.userType() == QMetaType::QStringList)
        return 8 + qMin(value.toStringList().size(), 3);
    if (value.userType() != QMetaType::QString)
        return value.isValid() ? 12 + value.userType() % 4 : 0;
    const QString text = value.toString();
    bool number = false;
    text.toLongLong(&number);
    if (text.isEmpty())
        return 1;
    if (number)
        return text.startsWith(QLatin1Char('-')) ? 2 : 3 + (text.size() > 9);
    if (std::any_of(text.begin(), text.end(), [](QChar c) { return c.unicode() < 0x20 || c.unicode() > 0x7e; }))
        return 5;
    return text.size() > 64 ? 6 : 7;
}

// The classes of the named keys' values, each key in slots of its own.
inline void recordShapes(QSettings& settings, const QStringList& keys, uint32_t firstSlot = 0)
{
    for (int slot = 0; slot < keys.size(); ++slot)
        shapeCounters[((firstSlot + slot) * 16 + shapeOf(settings.value(keys[slot]))) % sizeof shapeCounters]++;
}

// The two files an input needs, memory-backed where possible: QSettings' atomic save syncs every
// file it writes. QSettings keeps what it parsed per file name and trusts it while the size and the
// modification time agree, so every file written here gets a modification time of its own, years
// away from any real one.
class ScratchFiles
{
public:
    ScratchFiles()
        : m_directory(QDir(QStringLiteral("/dev/shm")).exists() ? QStringLiteral("/dev/shm/tarvik-fuzz-XXXXXX")
                                                               : QDir::tempPath() + "/tarvik-fuzz-XXXXXX")
    {
        require(m_directory.isValid(), "a scratch directory can be made");
    }

    QString write(const QByteArray& bytes)
    {
        QFile file(m_directory.filePath(QStringLiteral("input.ini")));
        require(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size(), "the input can be written");
        stamp(file);
        return file.fileName();
    }

    QString copy(const QString& path)
    {
        QFile file(m_directory.filePath(QStringLiteral("copy.ini")));
        require(QFile::copy(path, file.fileName()) && file.open(QIODevice::ReadWrite), "a written file can be copied");
        stamp(file);
        return file.fileName();
    }

    // Everything of the input goes, QSettings' lock files included.
    void clear()
    {
        QDir directory(m_directory.path());
        for (const QString& name : directory.entryList(QDir::Files | QDir::Hidden))
            directory.remove(name);
    }

private:
    void stamp(QFile& file)
    {
        const QDateTime time = QDateTime::fromSecsSinceEpoch(946684800 + qint64(++m_count), Qt::UTC);
        require(file.setFileTime(time, QFileDevice::FileModificationTime), "a file can be stamped");
    }

    QTemporaryDir m_directory;
    quint64 m_count = 0;
};

} // namespace FuzzSupport
