#include "app/stopsignals.h"
#include "engine/engine.h"
#include "log/log.h"

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTextStream>

#include <cstdio>
#include <cstdlib>

namespace {

struct Options {
    Log::Level level = Log::Info;
    bool toStderr = false;
    bool color = false;
    QString configPath;
};

void printBanner()
{
    QTextStream out(stdout);
    out << QCoreApplication::applicationName() << " v" << QCoreApplication::applicationVersion() << " ("
        << __DATE__ << ", " << __TIME__ << ")" << Qt::endl;
}

Log::Level levelFromText(const QString& text)
{
    const int level = text.toInt(nullptr, 10);
    if (level > Log::Debug)
        return Log::Debug;
    if (level < Log::Error)
        return Log::Error;
    return static_cast<Log::Level>(level);
}

// Help, version and parse errors end the process here, before the log or the configuration is touched.
Options parseCommandLine(const QCoreApplication& app, const QString& defaultConfigPath)
{
    Options options;
    options.configPath = defaultConfigPath;

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("An MQTT service for managing network devices and connections."));
    parser.addOptions({
        {{"h", "help"}, "Displays help information and exits.", QString(), QString()},
        {{"V", "version"}, "Displays version and exits.", QString(), QString()},
        {{"v", "verbose"}, "Sets verbosity level: 0=err, 1=warn, 2=info(default), 3=debug", "level", QString()},
        {{"e", "stderr"}, "Log to stderr as well as syslog.", QString(), QString()},
        {{"c", "color"}, "Use VT100 color codes in log.", QString(), QString()},
        {{"f", "config"}, "Specifies configuration file (default is ./tarvik.conf).", "filename", QString()},
    });
    parser.process(app);

    if (parser.isSet(QStringLiteral("help")))
        parser.showHelp(0);
    if (parser.isSet(QStringLiteral("version")))
        exit(0);
    if (parser.isSet(QStringLiteral("verbose")))
        options.level = levelFromText(parser.value(QStringLiteral("verbose")));
    if (parser.isSet(QStringLiteral("stderr")))
        options.toStderr = true;
    if (parser.isSet(QStringLiteral("color")))
        options.color = true;
    if (parser.isSet(QStringLiteral("config")))
        options.configPath = parser.value(QStringLiteral("config"));
    return options;
}

} // namespace

int main(int argc, char** argv)
{
    StopSignals::block();
    QCoreApplication::setOrganizationName(QStringLiteral("TOLV"));
    QCoreApplication::setOrganizationDomain(QStringLiteral("tolv.io"));
    QCoreApplication::setApplicationVersion(QStringLiteral(TARVIK_VERSION));
    QCoreApplication::setApplicationName(QStringLiteral("tarvik"));

    printBanner();

    QCoreApplication app(argc, argv);
    // Before the engine, whose D-Bus thread must not take the signals.
    StopSignals stopSignals;
    const QString defaultConfigPath = QCoreApplication::applicationDirPath() + QStringLiteral("/tarvik.conf");
    const Options options = parseCommandLine(app, defaultConfigPath);

    Log::open("tarvik", options.toStderr, options.color);
    Log::setLevel(options.level);

    auto* engine = new Tarvik::Engine(options.configPath, nullptr);
    QObject::connect(&stopSignals, &StopSignals::received, &app, &QCoreApplication::quit);
    // Qt cannot reconnect the system bus later: without it, end with a failure
    // for the service manager to start tarvik again.
    const bool started = engine->start();
    const int result = started ? app.exec() : EXIT_FAILURE;
    if (started)
        engine->stop();
    delete engine;
    return result;
}
