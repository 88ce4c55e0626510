#pragma once

#include "log/log.h"

namespace Tarvik {

// The log operation of each class of tarvik: its tag ("[Engine] ") in front
// of every format. A class holds one as its member `log` and calls it like a
// function; printf-style arguments, texts as 8-bit C strings.
class TaggedLog
{
public:
    explicit TaggedLog(const char* tag);

    void operator()(Log::Level level, const char* format, ...) const __attribute__((format(printf, 3, 4)));
    // Text the class composed itself, line breaks and all (see Log::printComposed).
    void composed(Log::Level level, const std::string& text) const;
    void setEnabled(bool enabled);

private:
    const char* m_tag;
    bool m_enabled = true;
};

} // namespace Tarvik
