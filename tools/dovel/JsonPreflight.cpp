#include "JsonPreflight.h"

#include <QSet>

#include <cstring>

#include <vector>

namespace DovelTool {

namespace {

// Qt's reader refuses deeper nesting, so there is nothing to find below it.
constexpr size_t MaxDepth = 1024;

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

int hexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

enum class StringRead { Done, Ended, Refused };

// Decodes the string whose opening quote is at `at`. Done: `at` is just past its closing
// quote. Ended: the text ends first. Refused: `at` is at a raw control character or at
// the backslash of an escape that JSON does not have (the reader would take "\s" for
// "s" and make keys equal that are not written alike), and `problem` says which.
StringRead readString(const QByteArray& json, int& at, QString& out, QString& problem) {
    out.clear();
    const int size = json.size();
    int runStart = ++at;
    while (at < size) {
        const char c = json[at];
        if (uchar(c) < 0x20) {
            problem = QStringLiteral("control character in a string");
            return StringRead::Refused;
        }
        if (c != '"' && c != '\\') {
            ++at;
            continue;
        }
        out += QString::fromUtf8(json.constData() + runStart, at - runStart);
        if (c == '"') {
            ++at;
            return StringRead::Done;
        }
        if (at + 1 >= size)
            return StringRead::Ended;
        const char escape = json[at + 1];
        static const char simple[] = "\"\\/bfnrt";
        static const char decoded[] = "\"\\/\b\f\n\r\t";
        if (const char* known = escape ? std::strchr(simple, escape) : nullptr) {
            out += QLatin1Char(decoded[known - simple]);
            at += 2;
        } else if (escape == 'u' && at + 6 <= size) {
            int unit = 0;
            for (int i = 2; i < 6 && unit >= 0; ++i) {
                const int digit = hexValue(json[at + i]);
                unit = digit < 0 ? -1 : unit * 16 + digit;
            }
            if (unit < 0) {
                problem = QStringLiteral("invalid escape in a string");
                return StringRead::Refused;
            }
            out += QChar(ushort(unit));
            at += 6;
        } else if (escape == 'u') {
            return StringRead::Ended;
        } else {
            problem = QStringLiteral("invalid escape in a string");
            return StringRead::Refused;
        }
        runStart = at;
    }
    return StringRead::Ended;
}

} // namespace

bool JsonPreflight::findProblem(const QByteArray& json, int& offset, QString& problem) {
    struct Level {
        bool object;
        QSet<QString> keys;
    };
    std::vector<Level> levels;
    const int size = json.size();
    int at = 0;
    QString text;
    while (at < size) {
        const char c = json[at];
        if (c == '{' || c == '[') {
            if (levels.size() >= MaxDepth)
                return false;
            levels.push_back(Level{c == '{', {}});
            ++at;
            continue;
        }
        if (c == '}' || c == ']') {
            if (!levels.empty())
                levels.pop_back();
            ++at;
            continue;
        }
        if (c != '"') {
            ++at;
            continue;
        }
        const int start = at;
        const StringRead read = readString(json, at, text, problem);
        if (read != StringRead::Done) {
            offset = at;
            return read == StringRead::Refused;
        }
        int next = at;
        while (next < size && isSpace(json[next]))
            ++next;
        // A string followed by a colon inside an object is a key.
        if (next < size && json[next] == ':' && !levels.empty() && levels.back().object) {
            if (levels.back().keys.contains(text)) {
                offset = start;
                problem = QStringLiteral("duplicate key \"%1\"").arg(text);
                return true;
            }
            levels.back().keys.insert(text);
        }
    }
    return false;
}

} // namespace DovelTool
