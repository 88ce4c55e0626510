#pragma once

#include <QMap>

namespace Tarvik {

// Every value-name table is a fixed map with one fallback for the values it
// does not hold.
template<typename Key, typename Value>
Value lookup(const QMap<Key, Value>& table, const Key& key, const Value& fallback)
{
    const auto found = table.constFind(key);
    return found == table.constEnd() ? fallback : found.value();
}

} // namespace Tarvik
