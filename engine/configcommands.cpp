#include "engine/engine.h"

#include "config/ipv4validation.h"
#include "engine/devicekind.h"
#include "engine/confirmedchanges.h"
#include "engine/devicework.h"
#include "engine/recordtexts.h"
#include "engine/usagebudget.h"

namespace Tarvik {

bool Engine::acceptIpv4(const Config::Ipv4Config& ipv4, const QString& errorCommand)
{
    const QString error = ipv4ConfigError(ipv4);
    if (error.isEmpty())
        return true;
    log(Log::Error, "Configuration refused: %s", error.toLocal8Bit().constData());
    m_ipc->publishError(errorCommand, error);
    return false;
}

void Engine::applyConfigSet(const DeviceKind& kind, const QJsonObject& payload)
{
    const QString errorCommand = QLatin1String(kind.setErrorCommand);
    const ChangeRequest request = ChangeRequest::of(payload);
    if (!request.error.isEmpty()) {
        log(Log::Error, "Configuration refused: %s", qPrintable(request.error));
        m_ipc->publishError(errorCommand, request.error);
        return;
    }
    const auto device = findRequestedDevice(payload, kind.deviceType, errorCommand);
    DeviceRecord record = kind.recordOf(*m_config);
    kind.readPayload(record, payload);
    if (!device || !acceptIpv4(ipv4Of(record), errorCommand)
        || !m_changes->acceptAnotherChange(device->uni(), errorCommand))
        return;
    if (request.asked) {
        if (kind.deviceType == NetworkManager::Device::Modem && m_usage->holdsModemDown()) {
            // A trial would bring up a modem that must stay down.
            m_ipc->publishError(errorCommand, QStringLiteral("The modem is cut off: its data budget is used up"));
            return;
        }
        const QString textError = recordTextError(record);
        if (!textError.isEmpty()) {
            log(Log::Error, "Configuration refused: %s", qPrintable(textError));
            m_ipc->publishError(errorCommand, textError);
            return;
        }
        m_changes->begin(kind, device, record, payload, request);
        return;
    }
    // The file holds the newest record at once, even when its provisioning waits or fails.
    kind.store(*m_config, record);
    m_work->add(device->uni(), DeviceWork::Provisioning, [this, device, record](const DeviceWork::Finished& finished) {
        updateConnection(device, record, [finished](NetworkManager::Connection::Ptr) { finished(); });
    });
}

void Engine::processEthernetConfigSetCommand(const QJsonObject& payload)
{
    applyConfigSet(*DeviceKind::of(NetworkManager::Device::Ethernet), payload);
}

void Engine::processWifiConfigSetCommand(const QJsonObject& payload)
{
    applyConfigSet(*DeviceKind::of(NetworkManager::Device::Wifi), payload);
}

void Engine::processModemConfigSetCommand(const QJsonObject& payload)
{
    applyConfigSet(*DeviceKind::of(NetworkManager::Device::Modem), payload);
}

void Engine::processTransactionConfirmCommand(const QJsonObject& payload)
{
    m_changes->confirm(payload);
}

void Engine::processTransactionRollbackCommand(const QJsonObject& payload)
{
    m_changes->rollback(payload);
}

} // namespace Tarvik
