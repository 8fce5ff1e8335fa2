// Finds a key written twice in one object of a JSON text. Qt's JSON reader keeps the
// last of two equal keys, silently, and leaks the first one's value when that is an
// object or an array; texts are checked with this before they are parsed, so that a
// duplicate is an error instead. Stateless; thread-safe.
#pragma once

#include <QByteArray>
#include <QString>

namespace DovelTool {

class JsonDuplicateKeys {
public:
    // True when some object of `json` holds a key twice: `offset` is then the byte offset
    // of the second one's opening quote and `key` its decoded text. Malformed text is
    // scanned as far as it can be (the parser reports what is wrong with it); nesting
    // deeper than the parser accepts is not scanned.
    static bool find(const QByteArray& json, int& offset, QString& key);
};

} // namespace DovelTool
