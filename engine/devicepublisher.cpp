#include "engine/devicepublisher.h"

#include "documents/documentparts.h"
#include "engine/profilesecrets.h"
#include "vocabulary/valuenames.h"

namespace Tarvik {

DevicePublisher::DevicePublisher(IPC* ipc, QObject* parent)
    : QObject(parent)
    , m_ipc(ipc)
{
}

void DevicePublisher::publish(const NetworkManager::Device::Ptr& device, const DeviceDocument& document)
{
    const QJsonObject built = document.build(device);
    if (!built.isEmpty())
        m_ipc->publish(document.topic, built);
}

void DevicePublisher::publishState(const NetworkManager::Device::Ptr& device)
{
    if (const DeviceKind* kind = device ? DeviceKind::of(device->type()) : nullptr)
        publish(device, kind->state);
}

void DevicePublisher::publishConfig(const NetworkManager::Device::Ptr& device, std::function<void()> then)
{
    const DeviceKind* kind = device ? DeviceKind::of(device->type()) : nullptr;
    if (!kind) {
        then();
        return;
    }
    const NetworkManager::Connection::Ptr profile = DocumentParts::firstAvailableConnection(device);
    if (!profile || !kind->hasSecrets() || !profile->settings()->setting(kind->secretSetting)) {
        m_ipc->publish(kind->configTopic, kind->configDocument(device, std::nullopt));
        then();
        return;
    }
    readProfileSecrets(profile, kind->secretSettingName(), this,
                       [this, device, kind, profile, then = std::move(then)](const ProfileSecrets& secrets) {
                           if (secrets.outcome == ProfileSecrets::Failed) {
                               publishSecretsFailure(device, *kind, profile, secrets.error);
                           } else {
                               const auto values = secrets.outcome == ProfileSecrets::Read
                                   ? std::optional<QVariantMap>(secrets.values) : std::nullopt;
                               m_ipc->publish(kind->configTopic, kind->configDocument(device, values));
                           }
                           then();
                       });
}

void DevicePublisher::publishAll(const NetworkManager::Device::Ptr& device, std::function<void()> then)
{
    publishState(device);
    publishConfig(device, [this, device, then = std::move(then)] {
        if (const DeviceKind* kind = DeviceKind::of(device->type())) {
            for (const DeviceDocument& companion : kind->companions)
                publish(device, companion);
        }
        then();
    });
}

void DevicePublisher::publishSecretsFailure(const NetworkManager::Device::Ptr& device, const DeviceKind& kind,
                                            const NetworkManager::Connection::Ptr& profile, const QDBusError& error)
{
    log(Log::Error, "[%s] Could not read the secrets of connection '%s' (dev=%s): %s (%s)",
        deviceTypeToString(device->type()).toLocal8Bit().constData(), qPrintable(profile->name()),
        qPrintable(device->interfaceName()), qPrintable(error.message()), qPrintable(error.name()));
    m_ipc->publishError(kind.configGetCommand(), QStringLiteral("Could not read the configuration of %1: %2")
                                                     .arg(device->interfaceName(), error.message()));
}

} // namespace Tarvik
