#pragma once

#include <QString>

namespace Tarvik {

// How much of a client's text tarvik repeats in a document or a log line.
constexpr int maxClientTextLength = 64;

// A client's text as tarvik repeats it: control characters escaped, cut to
// maxClientTextLength characters with "..." after the cut.
QString clientText(const QString& text);

} // namespace Tarvik
