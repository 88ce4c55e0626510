// Every value-name table against the literal texts clients receive, with the
// fallback on both sides of each table.
#include "vocabulary/devicestate.h"
#include "vocabulary/valuenames.h"

#include <QtTest>

#include <climits>

using namespace Tarvik;

// Interface objects whose run-time class names are the keys of the modem
// interface table; the modem library's own classes never carry these names.
namespace ModemDevice {
class ModemInterface : public ModemManager::Interface { Q_OBJECT public: ModemInterface() : Interface(QString()) {} };
class SimpleInterface : public ModemManager::Interface { Q_OBJECT public: SimpleInterface() : Interface(QString()) {} };
class GsmInterface : public ModemManager::Interface { Q_OBJECT public: GsmInterface() : Interface(QString()) {} };
class GsmUssdInterface : public ModemManager::Interface { Q_OBJECT public: GsmUssdInterface() : Interface(QString()) {} };
class CdmaInterface : public ModemManager::Interface { Q_OBJECT public: CdmaInterface() : Interface(QString()) {} };
class MessagingInterface : public ModemManager::Interface { Q_OBJECT public: MessagingInterface() : Interface(QString()) {} };
class LocationInterface : public ModemManager::Interface { Q_OBJECT public: LocationInterface() : Interface(QString()) {} };
class TimeInterface : public ModemManager::Interface { Q_OBJECT public: TimeInterface() : Interface(QString()) {} };
class FirmwareInterface : public ModemManager::Interface { Q_OBJECT public: FirmwareInterface() : Interface(QString()) {} };
class OmaInterface : public ModemManager::Interface { Q_OBJECT public: OmaInterface() : Interface(QString()) {} };
class SignalInterface : public ModemManager::Interface { Q_OBJECT public: SignalInterface() : Interface(QString()) {} };
} // namespace ModemDevice

namespace {

// The texts of the values from..to, in order.
template<typename Enum>
QStringList texts(QString (*toString)(Enum), int from, int to)
{
    QStringList result;
    for (int value = from; value <= to; ++value)
        result.append(toString(static_cast<Enum>(value)));
    return result;
}

template<typename Interface>
QString interfaceText()
{
    return modemInterfaceToString(ModemManager::Interface::Ptr(new Interface));
}

} // namespace

class TestVocabulary : public QObject
{
    Q_OBJECT

private slots:
    void deviceStatesCollapseToFive()
    {
        using NM = NetworkManager::Device;
        const QList<int> states { NM::UnknownState, NM::Unmanaged, NM::Unavailable, NM::Disconnected, NM::Preparing,
                                  NM::ConfiguringHardware, NM::NeedAuth, NM::ConfiguringIp, NM::CheckingIp,
                                  NM::WaitingForSecondaries, NM::Activated, NM::Deactivating, NM::Failed, 5, 125 };
        QStringList mapped;
        for (int state : states)
            mapped.append(deviceStateToString(mapDeviceState(static_cast<NM::State>(state))));
        const QStringList expected { "Unavailable", "Unavailable", "Unavailable", "Disconnected", "Connecting",
                                     "Connecting", "Connecting", "Connecting", "Connecting", "Connecting",
                                     "Connected", "Disconnecting", "Unavailable", "Unavailable", "Unavailable" };
        QCOMPARE(mapped, expected);
        QCOMPARE(int(mapDeviceState(NM::Activated)), 4);
        QCOMPARE(texts(deviceStateToString, 0, 5),
                 QStringList({ "Unavailable", "Disconnected", "Disconnecting", "Connecting", "Connected", "unknown" }));
    }

    void networkManagerEnumerationTexts()
    {
        QCOMPARE(texts(deviceTypeToString, 0, 21),
                 QStringList({ "UnkownType", "Ethernet", "Wifi", "Unused1", "Unused2", "Bluetooth", "OlpcMesh",
                               "Wimax", "Modem", "InfiniBand", "Bond", "Vlan", "Adsl", "Bridge", "Generic", "Team",
                               "Gre", "MacVlan", "Tun", "Veth", "unknown", "unknown" }));
        QCOMPARE(texts(connectionTypeToString, 0, 19),
                 QStringList({ "Unknown", "Adsl", "Bluetooth", "Bond", "Bridge", "Cdma", "Gsm", "Infiniband",
                               "OLPCMesh", "Pppoe", "Vlan", "Vpn", "Wimax", "Wired", "Wireless", "Team", "Generic",
                               "Tun", "unknown", "unknown" }));
        QCOMPARE(texts(statusToString, 0, 7),
                 QStringList({ "Unknown", "Asleep", "Disconnected", "Disconnecting", "Connecting",
                               "ConnectedLinkLocal", "ConnectedSiteOnly", "Connected" }));
        QCOMPARE(texts(connectivityToString, 0, 5),
                 QStringList({ "UnknownConnectivity", "NoConnectivity", "Portal", "Limited", "Full", "unknown" }));
        QCOMPARE(texts(ipv4SettingMethodToString, 0, 5),
                 QStringList({ "auto", "link-local", "manual", "shared", "disabled", "unknown" }));
        QCOMPARE(texts(apModeToString, 0, 4), QStringList({ "unknown", "adhoc", "infra", "apmode", "unknown" }));
    }

    void stateChangeReasonsSkipNowManaged()
    {
        QCOMPARE(texts(stateChangeReasonToString, 0, 63),
                 QStringList({ "UnknownReason", "NoReason", "unknown", "NowUnmanagedReason", "ConfigFailedReason",
                               "ConfigUnavailableReason", "ConfigExpiredReason", "NoSecretsReason",
                               "AuthSupplicantDisconnectReason", "AuthSupplicantConfigFailedReason",
                               "AuthSupplicantFailedReason", "AuthSupplicantTimeoutReason", "PppStartFailedReason",
                               "PppDisconnectReason", "PppFailedReason", "DhcpStartFailedReason", "DhcpErrorReason",
                               "DhcpFailedReason", "SharedStartFailedReason", "SharedFailedReason",
                               "AutoIpStartFailedReason", "AutoIpErrorReason", "AutoIpFailedReason",
                               "ModemBusyReason", "ModemNoDialToneReason", "ModemNoCarrierReason",
                               "ModemDialTimeoutReason", "ModemDialFailedReason", "ModemInitFailedReason",
                               "GsmApnSelectFailedReason", "GsmNotSearchingReason", "GsmRegistrationDeniedReason",
                               "GsmRegistrationTimeoutReason", "GsmRegistrationFailedReason",
                               "GsmPinCheckFailedReason", "FirmwareMissingReason", "DeviceRemovedReason",
                               "SleepingReason", "ConnectionRemovedReason", "UserRequestedReason", "CarrierReason",
                               "ConnectionAssumedReason", "SupplicantAvailableReason", "ModemNotFoundReason",
                               "BluetoothFailedReason", "GsmSimNotInserted", "GsmSimPinRequired",
                               "GsmSimPukRequired", "GsmSimWrong", "InfiniBandMode", "DependencyFailed",
                               "Br2684Failed", "ModemManagerUnavailable", "SsidNotFound",
                               "SecondaryConnectionFailed", "DcbFcoeFailed", "TeamdControlFailed", "ModemFailed",
                               "ModemAvailable", "SimPinIncorrect", "NewActivation", "ParentChanged",
                               "ParentManagedChanged", "unknown" }));
    }

    void mqttErrorsKeepTheirNumbers()
    {
        QCOMPARE(texts(mqttErrorToString, 0, 6),
                 QStringList({ "NoError", "InvalidProtocolVersion", "IdRejected", "ServerUnavailable",
                               "BadUsernameOrPassword", "NotAuthorized", "unknown" }));
        QCOMPARE(texts(mqttErrorToString, 255, 259),
                 QStringList({ "unknown", "TransportInvalid", "ProtocolViolation", "UnknownError", "unknown" }));
    }

    void ipv4MethodFromExactText_data()
    {
        using I = NetworkManager::Ipv4Setting;
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("method");
        QTest::newRow("auto") << "auto" << int(I::Automatic);
        QTest::newRow("link-local") << "link-local" << int(I::LinkLocal);
        QTest::newRow("manual") << "manual" << int(I::Manual);
        QTest::newRow("shared") << "shared" << int(I::Shared);
        QTest::newRow("disabled") << "disabled" << int(I::Disabled);
        QTest::newRow("capital letter") << "Manual" << int(I::Automatic);
        QTest::newRow("trailing blank") << "shared " << int(I::Automatic);
        QTest::newRow("unknown") << "unknown" << int(I::Automatic);
        QTest::newRow("empty") << "" << int(I::Automatic);
    }

    void ipv4MethodFromExactText()
    {
        QFETCH(QString, text);
        QFETCH(int, method);
        QCOMPARE(int(ipv4SettingMethodFromString(text)), method);
    }

    void accessPointSecurityFromFlags_data()
    {
        QTest::addColumn<uint>("capabilities");
        QTest::addColumn<int>("wpa");
        QTest::addColumn<int>("rsn");
        QTest::addColumn<QString>("security");
        QTest::newRow("open") << 0u << 0 << 0 << "none";
        QTest::newRow("privacy only") << 1u << 0 << 0 << "wep";
        QTest::newRow("privacy and wpa") << 1u << 0x148 << 0 << "wpa1";
        QTest::newRow("privacy and rsn") << 1u << 0 << 0x188 << "wpa2";
        QTest::newRow("privacy, wpa and rsn") << 1u << 0x148 << 0x188 << "wpa1-wpa2";
        QTest::newRow("privacy among other bits") << 3u << 0 << 0x188 << "wpa2";
        QTest::newRow("rsn without privacy") << 0u << 0 << 0x188 << "unknown";
        QTest::newRow("wpa without privacy") << 0u << 0x148 << 0 << "unknown";
        QTest::newRow("other bit without privacy") << 2u << 0 << 0 << "unknown";
        QTest::newRow("negative wpa") << 1u << INT_MIN << 0 << "unknown";
        QTest::newRow("negative rsn") << 1u << 0 << -1 << "unknown";
    }

    void accessPointSecurityFromFlags()
    {
        QFETCH(uint, capabilities);
        QFETCH(int, wpa);
        QFETCH(int, rsn);
        QFETCH(QString, security);
        QCOMPARE(apSecurityToString(apSecurityFromFlags(capabilities, wpa, rsn)), security);
    }

    void accessPointWithoutObjectOrPrivacy()
    {
        using A = NetworkManager::AccessPoint;
        QCOMPARE(apSecurity(A::Ptr()), QString("unknown"));
        QCOMPARE(apCapabilitiesTostring(A::Capabilities(A::None)), QString("none"));
        QCOMPARE(apCapabilitiesTostring(A::Capabilities(A::Privacy)), QString("privacy"));
        QCOMPARE(apCapabilitiesTostring(A::Capabilities(0x2)), QString("none"));
        QCOMPARE(apCapabilitiesTostring(A::Capabilities(0x3)), QString("privacy"));
    }

    void modemInterfacesByClassName()
    {
        const QStringList named { interfaceText<ModemDevice::ModemInterface>(),
                                  interfaceText<ModemDevice::SimpleInterface>(),
                                  interfaceText<ModemDevice::GsmInterface>(),
                                  interfaceText<ModemDevice::GsmUssdInterface>(),
                                  interfaceText<ModemDevice::CdmaInterface>(),
                                  interfaceText<ModemDevice::MessagingInterface>(),
                                  interfaceText<ModemDevice::LocationInterface>(),
                                  interfaceText<ModemDevice::TimeInterface>(),
                                  interfaceText<ModemDevice::FirmwareInterface>(),
                                  interfaceText<ModemDevice::OmaInterface>(),
                                  interfaceText<ModemDevice::SignalInterface>() };
        QCOMPARE(named, QStringList({ "Modem", "Simple", "Gsm", "GsmUssd", "Cdma", "Messaging", "Location", "Time",
                                      "Firmware", "Oma", "Signal" }));
        QCOMPARE(modemInterfaceToString(ModemManager::Interface::Ptr(new ModemManager::Interface(QString()))),
                 QString("Unknown"));
        QCOMPARE(modemInterfaceToString(ModemManager::Interface::Ptr()), QString("Unknown"));
    }
};

QTEST_GUILESS_MAIN(TestVocabulary)
#include "test_vocabulary.moc"
