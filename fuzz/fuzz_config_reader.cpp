// Configuration reader: any bytes as tarvik's INI file. tarvik reads it, writes it back as a set
// command does, and must read back what it wrote.

#include "config/config.h"
#include "fuzzsupport.h"

using FuzzSupport::require;
using Tarvik::Config;

namespace {

bool operator==(const Config::Ipv4Config& a, const Config::Ipv4Config& b)
{
    return a.method == b.method && a.address == b.address && a.netmask == b.netmask && a.gateway == b.gateway
        && a.dns0 == b.dns0 && a.dns1 == b.dns1;
}

bool sameSettings(const Config& a, const Config& b)
{
    const Config::Mqtt &m = a.mqtt(), &n = b.mqtt();
    const Config::Ethernet &e = a.ethernet(), &f = b.ethernet();
    const Config::Wifi &w = a.wifi(), &x = b.wifi();
    const Config::Modem &p = a.modem(), &q = b.modem();
    // A negative period has always been written as an unsigned number, which reads back as 0 (counting off).
    const bool sameUsage = p.usageSec == q.usageSec || (p.usageSec < 0 && q.usageSec == 0);
    return m.url == n.url && m.port == n.port && m.user == n.user && m.pass == n.pass && m.base == n.base
        && e.id == f.id && e.autocon == f.autocon && e.ipv4 == f.ipv4
        && w.id == x.id && w.autocon == x.autocon && w.ssid == x.ssid && w.key == x.key && w.ipv4 == x.ipv4
        && p.id == q.id && p.autocon == q.autocon && p.username == q.username && p.password == q.password
        && p.apn == q.apn && p.networkId == q.networkId && p.pin == q.pin && p.ipv4 == q.ipv4 && sameUsage;
}

FuzzSupport::ScratchFiles& files()
{
    static FuzzSupport::ScratchFiles scratch;
    return scratch;
}

// The keys tarvik writes, learned from tarvik itself: every setting read from an empty file, then written.
const QStringList& keysTarvikWrites()
{
    static const QStringList keys = [] {
        const QString path = files().write(QByteArray());
        Config(path, nullptr).writeConfiguration();
        const QStringList written = QSettings(path, QSettings::IniFormat).allKeys();
        files().clear();
        return written;
    }();
    return keys;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // The report of every setting is filtered before it is formatted: no syslog traffic, little cost.
    Log::setLevel(Log::Error);
    keysTarvikWrites();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString path = files().write(QByteArray::fromRawData(reinterpret_cast<const char*>(data), int(size)));
    {
        QSettings raw(path, QSettings::IniFormat);
        FuzzSupport::recordShapes(raw, keysTarvikWrites());
    }
    {
        Config config(path, nullptr);
        config.writeConfiguration();
        const Config reread(files().copy(path), nullptr);
        require(sameSettings(config, reread), "what tarvik writes reads back the same");
    }
    files().clear();
    return 0;
}
