#pragma once

#include "engine/devicekind.h"
#include "engine/profilesettings.h"
#include "log/taggedlog.h"

#include <NetworkManagerQt/Connection>
#include <NetworkManagerQt/ConnectionSettings>
#include <NetworkManagerQt/Device>
#include <QDBusPendingCall>
#include <QObject>

#include <functional>

namespace Tarvik {

// One run of keeping a device's profile equal to its record: the profile is looked up and compared, then
// updated and re-activated, activated, or created, each daemon call answered through the event loop.
class ProfileProvisioning : public QObject
{
    Q_OBJECT

public:
    // Gets the profile found, updated or created, or null when nothing could be done.
    using Done = std::function<void(NetworkManager::Connection::Ptr)>;
    // Gets, besides, the daemon's refusal when there was one.
    using Outcome = std::function<void(NetworkManager::Connection::Ptr, const QString& refusal)>;

    // Where a change goes: to disk, or to the daemon's memory only (a trial that a restart of the daemon
    // or a rollback undoes, saved once confirmed).
    enum class Persistence { Disk, Memory };

    // The run belongs to `parent` and ends with it; `done` is called once, unless the parent goes first.
    static void start(const NetworkManager::Device::Ptr& device, const DeviceRecord& record, QObject* parent,
                      Done done);
    static void start(const NetworkManager::Device::Ptr& device, const DeviceRecord& record, Persistence persistence,
                      QObject* parent, Outcome done);

private:
    ProfileProvisioning(const NetworkManager::Device::Ptr& device, const DeviceRecord& record,
                        Persistence persistence, QObject* parent, Outcome done);

    void run();
    void create();
    void loadSecrets();
    void compare();
    void clearSecrets();
    void update();
    void onUpdated(const QDBusPendingCall& reply);
    // After an update the profile is re-activated; otherwise it is activated.
    void activate(bool afterUpdate);
    void finish(NetworkManager::Connection::Ptr connection);
    void refuse(const QString& refusal);
    QDBusPendingCall sendUpdate(const NMVariantMapMap& settings);
    bool configureSettings(NetworkManager::ConnectionSettings::Ptr settings);
    const char* tag() const;

    const NetworkManager::Device::Ptr m_device;
    const DeviceKind* const m_kind;
    const DeviceRecord m_record;
    const Persistence m_persistence;
    ProfileTarget m_target;
    NetworkManager::Connection::Ptr m_connection;
    NetworkManager::ConnectionSettings::Ptr m_settings;
    UpdateMap m_update;
    Outcome m_done;
    const TaggedLog log{"[Engine] "};
};

// The first profile with this name among the device's available ones (all profiles without a device).
NetworkManager::Connection::Ptr findConnection(const QString& name, const NetworkManager::Device::Ptr& device);

} // namespace Tarvik
