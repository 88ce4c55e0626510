#include "vocabulary/clienttext.h"

#include "log/log.h"

#include <limits>

namespace Tarvik {

QString clientText(const QString& text)
{
    const std::string escaped =
        Log::printable(text.left(maxClientTextLength).toStdString(), std::numeric_limits<size_t>::max());
    return QString::fromStdString(escaped) + (text.size() > maxClientTextLength ? QStringLiteral("...") : QString());
}

} // namespace Tarvik
