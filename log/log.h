#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>

// Diagnostic output of tarvik: syslog (facility local1), optionally mirrored to
// standard error and coloured. Level filtering is done by the syslog mask.
namespace Log {

enum Level {
    Error = 0,
    Warning = 1,
    Info = 2,
    Debug = 3
};

bool open(const char* ident, bool toStderr, bool color);
bool close();
void setLevel(Level level);

void vprint(Level level, const char* format, va_list args);
void print(Level level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void print(Level level, const std::string& text);
// Text that tarvik composed itself (a document it publishes): its line breaks are its own and are written as
// they stand; anything a client could have put into it is already escaped. Cut like every message.
void printComposed(Level level, const std::string& text);

// Text from clients and daemons as it may appear in a message: control
// characters escaped ("\n", "\x1b"), cut after maxBytes with "..." added.
// Every message passes through it.
std::string printable(const std::string& text, size_t maxBytes);

void error(const char* format, ...) __attribute__((format(printf, 1, 2)));
void warning(const char* format, ...) __attribute__((format(printf, 1, 2)));
void info(const char* format, ...) __attribute__((format(printf, 1, 2)));
void debug(const char* format, ...) __attribute__((format(printf, 1, 2)));

} // namespace Log
