// Checks a JSON text for what Qt's JSON reader lets pass but must not, before it is
// parsed:
// - a key written twice in one object: the reader keeps the last one silently and leaks
//   the first one's value when that is an object or an array;
// - a raw control character inside a string, or an escape that JSON does not have: the
//   reader accepts both, compares keys only up to a raw zero byte and reads "\s" as
//   "s", so that keys written differently count as duplicates (with the same leak).
// Stateless; thread-safe.
#pragma once

#include <QByteArray>
#include <QString>

namespace DovelTool {

class JsonPreflight {
public:
    // True when `json` has one of the problems above: `offset` is then the byte offset
    // where it is (the second key's opening quote, the control character or the
    // backslash of the escape) and `problem` says what it is, as "duplicate key \"a\"".
    // Malformed text is scanned as far as it can be (the parser reports what is wrong
    // with it); nesting deeper than the parser accepts is not scanned.
    static bool findProblem(const QByteArray& json, int& offset, QString& problem);
};

} // namespace DovelTool
