#include "log/taggedlog.h"

#include <string>

namespace Tarvik {

TaggedLog::TaggedLog(const char* tag)
    : m_tag(tag)
{
}

void TaggedLog::operator()(Log::Level level, const char* format, ...) const
{
    if (!m_enabled)
        return;
    // The tag joins the format, not the message: it holds no conversions.
    const std::string tagged = std::string(m_tag) + format;
    va_list args;
    va_start(args, format);
    Log::vprint(level, tagged.c_str(), args);
    va_end(args);
}

void TaggedLog::composed(Log::Level level, const std::string& text) const
{
    if (m_enabled)
        Log::printComposed(level, m_tag + text);
}

void TaggedLog::setEnabled(bool enabled)
{
    m_enabled = enabled;
}

} // namespace Tarvik
