#include "log/log.h"

#include <cstdio>
#include <ctime>
#include <syslog.h>

namespace {

// Milliseconds of wall-clock time at Log::open; until then stamps count from 1970.
double time_start = 0;
bool Log_colorEnable = false;

const char* const resetCode = "\033[39m";

double wallClockMs()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return (now.tv_sec * 1e9 + now.tv_nsec) / 1e6;
}

double elapsedSeconds()
{
    return (wallClockMs() - time_start) / 1000.0;
}

int priorityOf(Log::Level level)
{
    switch (level) {
    case Log::Error:
        return LOG_ERR;
    case Log::Warning:
        return LOG_WARNING;
    case Log::Info:
        return LOG_INFO;
    default:
        return LOG_DEBUG;
    }
}

const char* colorOf(Log::Level level)
{
    switch (level) {
    case Log::Error:
        return "\033[31m";
    case Log::Warning:
        return "\033[33m";
    case Log::Info:
        return "\033[39m";
    case Log::Debug:
        return "\033[35m";
    }
    return "";
}

std::string Log_format(const char* format, ...) __attribute__((format(printf, 1, 2)));

std::string Log_format(const char* format, ...)
{
    char buffer[512];
    va_list args;
    va_start(args, format);
    vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    return buffer;
}

std::string Log_formatColor(Log::Level level, const char* text)
{
    std::string result(colorOf(level));
    result.append(text);
    result.append(resetCode);
    return result;
}

} // namespace

namespace Log {

bool open(const char* ident, bool toStderr, bool color)
{
    int options = LOG_CONS | LOG_NDELAY;
    if (toStderr)
        options |= LOG_PERROR;
    openlog(ident, options, LOG_LOCAL1);
    Log_colorEnable = color;
    time_start = wallClockMs();
    return true;
}

bool close()
{
    closelog();
    return true;
}

void setLevel(Level level)
{
    setlogmask(LOG_UPTO(priorityOf(level)));
}

void vprint(Level level, const char* format, va_list args)
{
    const int priority = priorityOf(level);
    std::string combined = Log_format("[%9.03f] ", elapsedSeconds());
    if (Log_colorEnable)
        combined.append(Log_formatColor(level, format));
    else
        combined.append(format);
    vsyslog(priority, combined.c_str(), args);
}

void print(Level level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vprint(level, format, args);
    va_end(args);
}

void print(Level level, const std::string& text)
{
    const int priority = priorityOf(level);
    const double elapsed = elapsedSeconds();
    if (Log_colorEnable)
        syslog(priority, "[%9.03f] %s", elapsed, Log_formatColor(level, text.c_str()).c_str());
    else
        syslog(priority, "[%9.03f] %s", elapsed, text.c_str());
}

void error(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vprint(Error, format, args);
    va_end(args);
}

void warning(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vprint(Warning, format, args);
    va_end(args);
}

void info(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vprint(Info, format, args);
    va_end(args);
}

void debug(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vprint(Debug, format, args);
    va_end(args);
}

} // namespace Log
