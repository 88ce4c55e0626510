#include "log/log.h"

#include <cstdio>
#include <ctime>
#include <syslog.h>

namespace {

// Milliseconds of wall-clock time at Log::open; until then stamps count from 1970.
double time_start = 0;
bool Log_colorEnable = false;

const char* const resetCode = "\033[39m";

// A message longer than this is cut: one syslog datagram must carry it, or the
// C library falls back to writing on the console, slowly.
constexpr size_t maxMessageBytes = 2048;
const char* const cutMark = "...";

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

std::string Log_formatColor(Log::Level level, const char* text)
{
    std::string result(colorOf(level));
    result.append(text);
    result.append(resetCode);
    return result;
}

} // namespace

namespace Log {

std::string printable(const std::string& text, size_t maxBytes)
{
    std::string result;
    for (const char c : text) {
        if (result.size() >= maxBytes) {
            result.resize(maxBytes);
            result.append(cutMark);
            break;
        }
        const unsigned char byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != 0x7f) {
            result.push_back(c);
        } else if (byte == '\n') {
            result.append("\\n");
        } else if (byte == '\t') {
            result.append("\\t");
        } else if (byte == '\r') {
            result.append("\\r");
        } else {
            char escaped[5];
            snprintf(escaped, sizeof(escaped), "\\x%02x", byte);
            result.append(escaped);
        }
    }
    return result;
}

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
    // setlogmask(0) only reads the mask: messages it drops cost no formatting.
    if (!(setlogmask(0) & LOG_MASK(priorityOf(level))))
        return;
    // Formatted here rather than by syslog, so that the arguments can be made printable.
    char message[maxMessageBytes + 2];
    vsnprintf(message, sizeof(message), format, args);
    print(level, std::string(message));
}

void print(Level level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vprint(level, format, args);
    va_end(args);
}

namespace {

void write(Level level, const std::string& message)
{
    const int priority = priorityOf(level);
    const double elapsed = elapsedSeconds();
    if (Log_colorEnable)
        syslog(priority, "[%9.03f] %s", elapsed, Log_formatColor(level, message.c_str()).c_str());
    else
        syslog(priority, "[%9.03f] %s", elapsed, message.c_str());
}

} // namespace

void print(Level level, const std::string& text)
{
    write(level, printable(text, maxMessageBytes));
}

void printComposed(Level level, const std::string& text)
{
    if (!(setlogmask(0) & LOG_MASK(priorityOf(level))))
        return;
    if (text.size() <= maxMessageBytes)
        write(level, text);
    else
        write(level, text.substr(0, maxMessageBytes) + cutMark);
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
