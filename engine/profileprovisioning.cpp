#include "engine/profileprovisioning.h"

#include "engine/pendingcall.h"
#include "engine/profilesecrets.h"
#include "vocabulary/valuenames.h"

#include <NetworkManagerQt/ActiveConnection>
#include <NetworkManagerQt/Manager>
#include <NetworkManagerQt/Settings>
#include <QDBusPendingReply>
#include <QDateTime>

namespace Tarvik {

void ProfileProvisioning::start(const NetworkManager::Device::Ptr& device, const DeviceRecord& record,
                                QObject* parent, Done done)
{
    start(device, record, Persistence::Disk, parent,
          [done = std::move(done)](NetworkManager::Connection::Ptr connection, const QString&) { done(connection); });
}

void ProfileProvisioning::start(const NetworkManager::Device::Ptr& device, const DeviceRecord& record,
                                Persistence persistence, QObject* parent, Outcome done)
{
    (new ProfileProvisioning(device, record, persistence, parent, std::move(done)))->run();
}

ProfileProvisioning::ProfileProvisioning(const NetworkManager::Device::Ptr& device, const DeviceRecord& record,
                                         Persistence persistence, QObject* parent, Outcome done)
    : QObject(parent)
    , m_device(device)
    , m_kind(device ? DeviceKind::of(device->type()) : nullptr)
    , m_record(record)
    , m_persistence(persistence)
    , m_done(std::move(done))
{
}

const char* ProfileProvisioning::tag() const
{
    return m_target.tag.constData();
}

void ProfileProvisioning::run()
{
    if (!m_device || !m_device->isValid()) {
        finish({});
        return;
    }
    m_target.tag = deviceTypeToString(m_device->type()).toLocal8Bit();
    if (!m_kind) {
        // NetworkManager would complete a profile without a type from the
        // device and activate it, taking the link down each time.
        log(Log::Info, "[%s] No configuration for this device type. Will not attempt to connect.", tag());
        finish({});
        return;
    }
    const std::optional<ProfileTarget> target = m_kind->target(m_device, m_record, log);
    if (!target) {
        finish({});
        return;
    }
    m_target = *target;
    log(Log::Info, "[%s] Checking connection: %s", tag(), qPrintable(m_target.name));
    if (m_target.name.isEmpty()) {
        finish({});
        return;
    }
    m_connection = findConnection(m_target.name, m_device);
    if (!m_connection) {
        create();
        return;
    }
    log(Log::Info, "[%s] Connection '%s' already exists.", tag(), qPrintable(m_target.name));
    loadSecrets();
}

void ProfileProvisioning::create()
{
    log(Log::Info, "[%s] Connection '%s' does not exist. Creating and activating.", tag(), qPrintable(m_target.name));
    NetworkManager::ConnectionSettings::Ptr settings(new NetworkManager::ConnectionSettings(m_target.type));
    settings->setUuid(NetworkManager::ConnectionSettings::createNewUuid());
    settings->setTimestamp(QDateTime::currentDateTime());
    configureSettings(settings);

    const auto call = m_persistence == Persistence::Disk
        ? QDBusPendingCall(NetworkManager::addAndActivateConnection(settings->toMap(), m_device->uni(),
                                                                    m_target.accessPoint))
        : QDBusPendingCall(NetworkManager::addAndActivateConnection2(settings->toMap(), m_device->uni(),
                                                                     m_target.accessPoint,
                                                                     {{QStringLiteral("persist"), "memory"}}));
    whenFinished(call, this, [this](const QDBusPendingCall& finished) {
        const QDBusPendingReply<QDBusObjectPath, QDBusObjectPath> reply = finished;
        if (!reply.isValid()) {
            log(Log::Info, "[%s] Failed to create connection '%s' : %s", tag(), qPrintable(m_target.name),
                qPrintable(reply.error().message()));
            refuse(reply.error().message());
            return;
        }
        log(Log::Info, "[%s] Connection '%s' created successfully.", tag(), qPrintable(m_target.name));
        finish(NetworkManager::findConnection(reply.argumentAt<0>().path()));
    });
}

// Keys and passwords are not part of the settings NetworkManager hands out:
// fetch them so that they take part in the comparison with the record.
void ProfileProvisioning::loadSecrets()
{
    m_settings = m_connection->settings();
    if (!m_kind->hasSecrets() || !m_settings->setting(m_kind->secretSetting)) {
        compare();
        return;
    }
    readProfileSecrets(m_connection, m_kind->secretSettingName(), this, [this](const ProfileSecrets& secrets) {
        if (secrets.outcome != ProfileSecrets::Read && m_kind->logsUnreadSecrets) {
            log(Log::Info, "[%s] Failed to get secrets: '%s' : %s", tag(), qPrintable(m_connection->name()),
                qPrintable(secrets.error.message()));
        }
        m_settings->setting(m_kind->secretSetting)->secretsFromMap(secrets.values);
        compare();
    });
}

void ProfileProvisioning::compare()
{
    // Judged on the stored secrets, before the record is written over them.
    const bool emptiesSecrets = emptiesStoredSecrets(m_settings, m_record);
    if (configureSettings(m_settings)) {
        log(Log::Info, "[%s] Connection settings have changed. Applying new settings.", tag());
        // Clearing secrets reaches the disk: a trial only updates them in memory.
        if (emptiesSecrets && m_persistence == Persistence::Disk)
            clearSecrets();
        else
            update();
        return;
    }
    log(Log::Info, "[%s] No update required for connection '%s'.", tag(), qPrintable(m_target.name));
    const NetworkManager::ActiveConnection::Ptr active = m_device->activeConnection();
    if (active && active->connection() == m_connection) {
        finish(m_connection);
        return;
    }
    log(Log::Info, "[%s] Connection '%s' not active. Activating.", tag(), qPrintable(m_target.name));
    activate(false);
}

void ProfileProvisioning::clearSecrets()
{
    whenFinished(m_connection->clearSecrets(), this, [this](const QDBusPendingCall& cleared) {
        if (cleared.isError()) {
            log(Log::Info, "[%s] Failed to clear the secrets of connection '%s' : %s", tag(),
                qPrintable(m_target.name), qPrintable(cleared.error().message()));
        }
        update();
    });
}

void ProfileProvisioning::update()
{
    m_update = updateMapOf(m_settings);
    whenFinished(sendUpdate(m_update.settings), this, [this](const QDBusPendingCall& first) {
        if (first.isError() && m_update.refusesAddedKey(first.error().name(), first.error().message())) {
            log(Log::Info, "[%s] NetworkManager refused the empty GSM secrets of connection '%s' (%s). "
                           "Updating without them.",
                tag(), qPrintable(m_target.name), qPrintable(first.error().message()));
            whenFinished(sendUpdate(m_update.withoutAddedKeys()), this,
                         [this](const QDBusPendingCall& second) { onUpdated(second); });
            return;
        }
        onUpdated(first);
    });
}

void ProfileProvisioning::onUpdated(const QDBusPendingCall& reply)
{
    if (reply.isError()) {
        log(Log::Info, "[%s] Failed to update connection '%s' : %s", tag(), qPrintable(m_target.name),
            qPrintable(reply.error().message()));
        refuse(reply.error().message());
        return;
    }
    activate(true);
}

void ProfileProvisioning::activate(bool afterUpdate)
{
    const auto call = NetworkManager::activateConnection(m_connection->path(), m_device->uni(), m_target.accessPoint);
    whenFinished(call, this, [this, afterUpdate](const QDBusPendingCall& reply) {
        if (reply.isError()) {
            log(Log::Info, "[%s] Failed to activate connection: %s", tag(), qPrintable(reply.error().message()));
            refuse(reply.error().message());
            return;
        }
        if (afterUpdate)
            log(Log::Info, "[%s] Connection '%s' updated.", tag(), qPrintable(m_target.name));
        else
            log(Log::Info, "[%s] Connection '%s' activated.", tag(), qPrintable(m_target.name));
        finish(m_connection);
    });
}

QDBusPendingCall ProfileProvisioning::sendUpdate(const NMVariantMapMap& settings)
{
    return m_persistence == Persistence::Disk ? QDBusPendingCall(m_connection->update(settings))
                                              : QDBusPendingCall(m_connection->updateUnsaved(settings));
}

void ProfileProvisioning::finish(NetworkManager::Connection::Ptr connection)
{
    deleteLater();
    m_done(connection, QString());
}

void ProfileProvisioning::refuse(const QString& refusal)
{
    deleteLater();
    m_done({}, refusal);
}

bool ProfileProvisioning::configureSettings(NetworkManager::ConnectionSettings::Ptr settings)
{
    if (m_target.security == ApSecurity::Unknown) {
        log(Log::Error, "Could not determine Wifi security for AP '%s'. Defaulting to 'none'.",
            qPrintable(m_target.name));
    }
    return updateConnectionSettings(settings, m_record, m_target.security);
}

NetworkManager::Connection::Ptr findConnection(const QString& name, const NetworkManager::Device::Ptr& device)
{
    const NetworkManager::Connection::List candidates =
        device ? device->availableConnections() : NetworkManager::listConnections();
    for (const NetworkManager::Connection::Ptr& connection : candidates) {
        if (connection->name() == name)
            return connection;
    }
    return {};
}

} // namespace Tarvik
