// Logs what its command line asks for, in order, so that tests can read the
// bytes that reach standard error through LOG_PERROR. Steps:
//   open | open-color       Log::open("logprobe", mirror to stderr, colour off/on)
//   close                   Log::close()
//   level=N                 Log::setLevel(N)
//   after=S                 busy-waits until S seconds of wall clock have passed since the last open
// The probe reads the clock itself only when an "after" step asks for it, so
// that under a faked clock the log's own readings are the only ones.
//   vprint=N:FORMAT         Log::vprint at level N, with the arguments 42 and "arg"
//   text=N:TEXT             Log::print(N, std::string)
//   error|warning|info|debug=FORMAT   the named shorthand, with the same arguments
#include "log/log.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace {

double wallClockSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec + now.tv_nsec / 1e9;
}

void callVprint(Log::Level level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    Log::vprint(level, format, args);
    va_end(args);
}

// Splits "N:TEXT" into the level number N and the text. The number stays an
// int until the call: levels outside the enumeration are part of what is tested.
bool levelAndText(const std::string& value, int* level, std::string* text)
{
    const auto colon = value.find(':');
    if (colon == std::string::npos)
        return false;
    *level = std::atoi(value.substr(0, colon).c_str());
    *text = value.substr(colon + 1);
    return true;
}

bool hasAfterStep(int argc, char* argv[])
{
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "after=", 6) == 0)
            return true;
    }
    return false;
}

} // namespace

int main(int argc, char* argv[])
{
    const bool measure = hasAfterStep(argc, argv);
    double openedAt = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string step = argv[i];
        const auto equals = step.find('=');
        const std::string name = step.substr(0, equals);
        const std::string value = equals == std::string::npos ? std::string() : step.substr(equals + 1);
        int level = Log::Info;
        std::string text;

        if (name == "open" || name == "open-color") {
            Log::open("logprobe", true, name == "open-color");
            if (measure)
                openedAt = wallClockSeconds();
        } else if (name == "close") {
            Log::close();
        } else if (name == "level") {
            Log::setLevel(static_cast<Log::Level>(std::atoi(value.c_str())));
        } else if (name == "after") {
            const double until = openedAt + std::atof(value.c_str());
            while (wallClockSeconds() < until) {
            }
        } else if (name == "vprint" && levelAndText(value, &level, &text)) {
            callVprint(static_cast<Log::Level>(level), text.c_str(), 42, "arg");
        } else if (name == "text" && levelAndText(value, &level, &text)) {
            Log::print(static_cast<Log::Level>(level), text);
        } else if (name == "error") {
            Log::error(value.c_str(), 42, "arg");
        } else if (name == "warning") {
            Log::warning(value.c_str(), 42, "arg");
        } else if (name == "info") {
            Log::info(value.c_str(), 42, "arg");
        } else if (name == "debug") {
            Log::debug(value.c_str(), 42, "arg");
        } else {
            std::fprintf(stdout, "logprobe: unknown step '%s'\n", argv[i]);
            return 2;
        }
    }
    return 0;
}
