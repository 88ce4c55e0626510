// The decisions taken on values (a device's collapsed state, an access
// point's security) and the texts clients receive where they are not simply
// the enumerators' names: gaps, misspellings kept, fallbacks.
#include "vocabulary/devicestate.h"
#include "vocabulary/valuenames.h"

#include <QtTest>

#include <climits>
#include <initializer_list>

using namespace Tarvik;
using Ipv4 = NetworkManager::Ipv4Setting;

namespace {

// The texts of these values, in order.
template<typename Enum>
QStringList texts(QString (*toString)(Enum), std::initializer_list<int> values)
{
    QStringList result;
    for (int value : values)
        result << toString(static_cast<Enum>(value));
    return result;
}

QString collapsedState(NetworkManager::Device::State state)
{
    return deviceStateToString(mapDeviceState(state));
}

} // namespace

class TestVocabulary : public QObject
{
    Q_OBJECT

private slots:
    void deviceStatesCollapseToFive()
    {
        // NetworkManager's device states as they come over the bus, and one it does not define.
        QCOMPARE(texts(collapsedState, {0, 10, 20, 30, 40, 50, 60, 70, 80, 90, 100, 110, 120, 5}),
            QStringList({"Unavailable", "Unavailable", "Unavailable", "Disconnected", "Connecting", "Connecting",
                "Connecting", "Connecting", "Connecting", "Connecting", "Connected", "Disconnecting", "Unavailable",
                "Unavailable"}));
        QCOMPARE(texts(deviceStateToString, {5}), QStringList({"unknown"}));
    }

    void textsAtTheEdgesOfTheTables()
    {
        // Clients have always received this spelling.
        QCOMPARE(texts(deviceTypeToString, {0, 19, 20}), QStringList({"UnkownType", "Veth", "unknown"}));
        // Reason 2 has no text of its own.
        QCOMPARE(texts(stateChangeReasonToString, {1, 2, 3, 62, 63}),
            QStringList({"NoReason", "unknown", "NowUnmanagedReason", "ParentManagedChanged", "unknown"}));
        // The broker's refusals keep their CONNACK numbers; the client's own errors start at 256.
        QCOMPARE(texts(mqttErrorToString, {5, 6, 255, 256, 258, 259}),
            QStringList({"NotAuthorized", "unknown", "unknown", "TransportInvalid", "UnknownError", "unknown"}));
        QCOMPARE(texts(statusToString, {8}) + texts(connectivityToString, {5}) + texts(apModeToString, {3, 4})
                + texts(ipv4SettingMethodToString, {5}) + QStringList(apSecurity(NetworkManager::AccessPoint::Ptr())),
            QStringList({"unknown", "unknown", "apmode", "unknown", "unknown", "unknown"}));

        for (int method = Ipv4::Automatic; method <= Ipv4::Disabled; ++method) {
            const auto configMethod = Ipv4::ConfigMethod(method);
            QCOMPARE(ipv4SettingMethodFromString(ipv4SettingMethodToString(configMethod)), configMethod);
        }
        // Only the exact text counts; anything else means automatic.
        for (const char* text : {"Manual", "shared ", "unknown", ""})
            QCOMPARE(ipv4SettingMethodFromString(text), Ipv4::Automatic);
    }

    void accessPointSecurityFromFlags()
    {
        const struct {
            uint capabilities;
            int wpa;
            int rsn;
            const char* security;
        } rows[] = {
            {0, 0, 0, "none"}, {1, 0, 0, "wep"}, {1, 0x148, 0, "wpa1"}, {1, 0, 0x188, "wpa2"},
            {1, 0x148, 0x188, "wpa1-wpa2"}, {3, 0, 0x188, "wpa2"},
            // Flags without the privacy bit, or negative ones, say nothing trustworthy.
            {0, 0, 0x188, "unknown"}, {0, 0x148, 0, "unknown"}, {2, 0, 0, "unknown"}, {1, INT_MIN, 0, "unknown"},
            {1, 0, -1, "unknown"},
        };
        for (const auto& row : rows) {
            QVERIFY2(apSecurityToString(apSecurityFromFlags(row.capabilities, row.wpa, row.rsn)) == row.security,
                qPrintable(QString("%1 %2 %3").arg(row.capabilities).arg(row.wpa).arg(row.rsn)));
        }
    }
};

QTEST_GUILESS_MAIN(TestVocabulary)
#include "test_vocabulary.moc"
