#include "engine/engine.h"

#include "vocabulary/devicestate.h"

#include <ModemManagerQt/Bearer>
#include <ModemManagerQt/Manager>
#include <ModemManagerQt/Modem>
#include <ModemManagerQt/ModemDevice>
#include <QDateTime>
#include <QFile>
#include <QTextStream>

namespace Tarvik {

namespace {

const char* const snapshotPath = "/tmp/modem-snapshot.ini";
const char* const monthFormat = "yyyy-MM";

QString currentMonth()
{
    return QDateTime::currentDateTime().toString(QLatin1String(monthFormat));
}

// Counters and totals are kept modulo 2^32: a counter that restarts below the snapshot wraps.
quint32 low32(const QVariant& value)
{
    return static_cast<quint32>(value.toULongLong());
}

NetworkManager::Device::Ptr connectedModem()
{
    const auto devices = NetworkManager::networkInterfaces();
    for (const NetworkManager::Device::Ptr& device : devices) {
        if (device->isValid() && device->interfaceName() != QLatin1String("lo")
            && device->type() == NetworkManager::Device::Modem && mapDeviceState(device->state()) == Connected)
            return device;
    }
    return {};
}

} // namespace

void Engine::startMonitorModemStats()
{
    if (m_config->modem().usageSec == 0 || m_statsTimer.isActive())
        return;
    log(Log::Info, "[Modem] Started monitoring Data usage");
    m_statsTimer.start();
    publishModemStats();
}

void Engine::stopMonitorModemStats()
{
    if (!m_statsTimer.isActive())
        return;
    log(Log::Info, "[Modem] Stopped monitoring Data usage");
    m_statsTimer.stop();
}

void Engine::updateModemStats()
{
    const auto device = connectedModem();
    if (!device)
        return;
    const ModemReading reading = getModemStats(device.objectCast<NetworkManager::ModemDevice>());

    QSettings snapshot(QLatin1String(snapshotPath), QSettings::IniFormat);
    const uint now = QDateTime::currentDateTime().toTime_t();
    const quint32 prevRx = low32(snapshot.value(QStringLiteral("rxbytes"), 0));
    const quint32 prevTx = low32(snapshot.value(QStringLiteral("txbytes"), 0));

    quint32 deltaRx = static_cast<quint32>(reading.rxBytes) - prevRx;
    quint32 deltaTx = static_cast<quint32>(reading.txBytes) - prevTx;

    const QString month = currentMonth();
    const QString rxKey = month + QStringLiteral("/rxbytes");
    const QString txKey = month + QStringLiteral("/txbytes");
    if (m_stats.childGroups().contains(month)) {
        deltaRx += low32(m_stats.value(rxKey, 0));
        deltaTx += low32(m_stats.value(txKey, 0));
    }

    // sync() creates ./stats when it is missing.
    m_stats.setValue(rxKey, deltaRx);
    m_stats.setValue(txKey, deltaTx);
    m_stats.sync();

    snapshot.setValue(QStringLiteral("timestamp"), now);
    snapshot.setValue(QStringLiteral("duration"), reading.duration);
    snapshot.setValue(QStringLiteral("rxbytes"), reading.rxBytes);
    snapshot.setValue(QStringLiteral("txbytes"), reading.txBytes);

    publishModemStats();
}

Engine::ModemReading Engine::getModemStats(NetworkManager::ModemDevice::Ptr device)
{
    ModemReading reading;
    if (!device)
        return reading;
    const auto modemDevice = ModemManager::findModemDevice(device->udi());
    if (!modemDevice)
        return reading;
    const auto modem = modemDevice->modemInterface();
    if (!modem)
        return reading;
    const ModemManager::Bearer::List bearers = modem->listBearers();
    if (bearers.isEmpty())
        return reading;

    const QString interface = bearers.first()->interface();
    reading.rxBytes = readIntegerFromFile(QStringLiteral("/sys/class/net/%1/statistics/rx_bytes").arg(interface));
    reading.txBytes = readIntegerFromFile(QStringLiteral("/sys/class/net/%1/statistics/tx_bytes").arg(interface));
    return reading;
}

qint64 Engine::readIntegerFromFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return 0;
    const QString line = QTextStream(&file).readLine();
    if (line.isNull())
        return 0;
    return line.toLongLong(nullptr, 10);
}

void Engine::publishModemStats()
{
    QMap<QString, QMap<QString, double>> stats;
    const QStringList months = m_stats.childGroups();
    for (const QString& month : months) {
        m_stats.beginGroup(month);
        // Totals of 2^31 bytes or more come out negative; clients rely on this form.
        const qint32 rx = static_cast<qint32>(m_stats.value(QStringLiteral("rxbytes")).toUInt());
        const qint32 tx = static_cast<qint32>(m_stats.value(QStringLiteral("txbytes")).toUInt());
        m_stats.endGroup();
        stats[month][QStringLiteral("rxbytes")] = rx / 1000000.0;
        stats[month][QStringLiteral("txbytes")] = tx / 1000000.0;
    }

    const QString month = currentMonth();
    const QMap<QString, double> current = stats.value(month);
    log(Log::Info, "[Modem] Publishing Data usage statistics (%s | U:%.1fM | D:%.1fM)", month.toLocal8Bit().constData(),
        current.value(QStringLiteral("txbytes"), 0.0), current.value(QStringLiteral("rxbytes"), 0.0));
    m_ipc->publishModemStats(stats);
}

void Engine::processModemStatsGetCommand(const QJsonObject& payload)
{
    if (findRequestedDevice(payload, NetworkManager::Device::Modem, QStringLiteral("modem/stats/get")))
        publishModemStats();
}

void Engine::pruneModemStats()
{
    const QDateTime cutOff = QDateTime::currentDateTime().addMonths(-6);
    const QStringList months = m_stats.childGroups();
    for (const QString& month : months) {
        if (QDateTime::fromString(month, QLatin1String(monthFormat)) < cutOff)
            m_stats.remove(month);
    }
    m_stats.sync();
}

} // namespace Tarvik
