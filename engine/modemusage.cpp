#include "engine/engine.h"

#include "documents/daemonsonbus.h"
#include "engine/datausage.h"
#include "engine/devicekind.h"
#include "engine/modemdataport.h"
#include "engine/pendingcall.h"
#include "engine/usagebudget.h"
#include "vocabulary/devicestate.h"

#include <QDateTime>
#include <QFile>
#include <QTextStream>

namespace Tarvik {

namespace {

const char* const snapshotPath = "/tmp/modem-snapshot.ini";

// Totals are kept modulo 2^32.
quint32 low32(const QVariant& value)
{
    return static_cast<quint32>(value.toULongLong());
}

QString counterPath(const QString& interface, const char* counter)
{
    return QStringLiteral("/sys/class/net/%1/statistics/%2").arg(interface, QLatin1String(counter));
}

NetworkManager::Device::Ptr connectedModem()
{
    if (!isOnBus(Daemon::NetworkManager))
        return {};
    const auto devices = NetworkManager::networkInterfaces();
    for (const NetworkManager::Device::Ptr& device : devices) {
        if (device->isValid() && device->interfaceName() != QLatin1String("lo")
            && device->type() == NetworkManager::Device::Modem && mapDeviceState(device->state()) == Connected)
            return device;
    }
    return {};
}

} // namespace

void Engine::followModemStats(NetworkManager::Device::Ptr modem)
{
    const DeviceKind* kind = DeviceKind::of(modem->type());
    if (!kind || !kind->countsDataUsage)
        return;
    if (mapDeviceState(modem->state()) == Connected) {
        holdModemDown(modem);
        // Counting starts once the data interface is known, so that even a reading at stop finds it.
        m_modemDataPort->refresh(modem->udi(), [this, modem] {
            if (mapDeviceState(modem->state()) == Connected)
                startMonitorModemStats();
        });
    } else {
        stopMonitorModemStats();
    }
}

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
    // Learnt for the next reading: this one must not wait for ModemManager.
    m_modemDataPort->refresh(device->udi());

    QSettings snapshot(QLatin1String(snapshotPath), QSettings::IniFormat);
    const QDateTime now = QDateTime::currentDateTime();
    const QString month = DataUsage::monthOf(now);
    const QString rxKey = month + QStringLiteral("/rxbytes");
    const QString txKey = month + QStringLiteral("/txbytes");
    const bool known = m_stats.childGroups().contains(month);
    const quint32 rxTotal = known ? low32(m_stats.value(rxKey, 0)) : 0;
    const quint32 txTotal = known ? low32(m_stats.value(txKey, 0)) : 0;

    // sync() creates ./stats when it is missing.
    const quint64 previousRx = snapshot.value(QStringLiteral("rxbytes"), 0).toULongLong();
    const quint64 previousTx = snapshot.value(QStringLiteral("txbytes"), 0).toULongLong();
    m_stats.setValue(rxKey, DataUsage::addTraffic(rxTotal, reading.rxBytes, previousRx));
    m_stats.setValue(txKey, DataUsage::addTraffic(txTotal, reading.txBytes, previousTx));
    m_stats.sync();

    snapshot.setValue(QStringLiteral("timestamp"), now.toTime_t());
    snapshot.setValue(QStringLiteral("duration"), reading.duration);
    snapshot.setValue(QStringLiteral("rxbytes"), reading.rxBytes);
    snapshot.setValue(QStringLiteral("txbytes"), reading.txBytes);

    publishModemStats();

    // A counter that cannot be read is no reading: taken as zero, the next one would be counted twice.
    const QString port = m_modemDataPort->interface();
    if (!port.isEmpty() && QFile::exists(counterPath(port, "rx_bytes")))
        m_usage->record(device->interfaceName(), port, reading.rxBytes, reading.txBytes);
}

Engine::ModemReading Engine::getModemStats(NetworkManager::ModemDevice::Ptr device)
{
    ModemReading reading;
    const QString interface = m_modemDataPort->interface();
    if (!device || interface.isEmpty())
        return reading;
    reading.rxBytes = readIntegerFromFile(counterPath(interface, "rx_bytes"));
    reading.txBytes = readIntegerFromFile(counterPath(interface, "tx_bytes"));
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
    const QMap<QString, QMap<QString, double>> stats = DataUsage::megabytesPerMonth(m_stats);
    const QString month = DataUsage::monthOf(QDateTime::currentDateTime());
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
    const QDateTime now = QDateTime::currentDateTime();
    const QStringList months = m_stats.childGroups();
    for (const QString& month : months) {
        if (DataUsage::isExpired(month, now))
            m_stats.remove(month);
    }
    m_stats.sync();
}

void Engine::processModemUsageGetCommand(const QJsonObject& payload)
{
    if (acceptModemInterface(payload, QStringLiteral("modem/usage/get")))
        m_usage->get();
}

void Engine::processModemUsageSetCommand(const QJsonObject& payload)
{
    if (acceptModemInterface(payload, QLatin1String(UsageBudget::setCommand)))
        m_usage->set(payload);
}

void Engine::processModemUsageResumeCommand(const QJsonObject& payload)
{
    if (acceptModemInterface(payload, QLatin1String(UsageBudget::resumeCommand)))
        m_usage->resume();
}

bool Engine::acceptModemInterface(const QJsonObject& payload, const QString& errorCommand)
{
    // The plan is the SIM's: it is kept and answered for while no modem is there.
    return !payload.contains(QStringLiteral("interface"))
        || findRequestedDevice(payload, NetworkManager::Device::Modem, errorCommand);
}

void Engine::onUsageHoldChanged(bool held)
{
    if (!isOnBus(Daemon::NetworkManager))
        return;
    const auto devices = NetworkManager::networkInterfaces();
    for (const NetworkManager::Device::Ptr& device : devices) {
        if (device->type() != NetworkManager::Device::Modem)
            continue;
        if (held)
            holdModemDown(device);
        else
            reloadDevice(device);
    }
}

void Engine::holdModemDown(NetworkManager::Device::Ptr modem)
{
    if (!m_usage->holdsModemDown() || !modem->isActive())
        return;
    log(Log::Warning, "[Modem] Data budget used up: disconnecting %s.", qPrintable(modem->interfaceName()));
    whenFinished(modem->disconnectInterface(), this, [this, modem](const QDBusPendingCall& reply) {
        if (reply.isError()) {
            log(Log::Warning, "[Modem] Failed to disconnect %s: %s", qPrintable(modem->interfaceName()),
                qPrintable(reply.error().message()));
        }
    });
}

} // namespace Tarvik
