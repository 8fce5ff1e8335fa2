#include "JsonPreflight.h"

#include <QSet>

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

// Decodes the string whose opening quote is at `at`; on return `at` is just past its
// closing quote, or at a raw control character (`control` is then set). False when the
// text ends first, holds a bad escape or a raw control character.
bool readString(const QByteArray& json, int& at, QString& out, bool& control) {
    out.clear();
    control = false;
    const int size = json.size();
    int runStart = ++at;
    while (at < size) {
        const char c = json[at];
        if (uchar(c) < 0x20) {
            control = true;
            return false;
        }
        if (c != '"' && c != '\\') {
            ++at;
            continue;
        }
        out += QString::fromUtf8(json.constData() + runStart, at - runStart);
        if (c == '"') {
            ++at;
            return true;
        }
        if (at + 1 >= size)
            return false;
        const char escape = json[at + 1];
        at += 2;
        switch (escape) {
        case '"':
        case '\\':
        case '/':
            out += QLatin1Char(escape);
            break;
        case 'b':
            out += QLatin1Char('\b');
            break;
        case 'f':
            out += QLatin1Char('\f');
            break;
        case 'n':
            out += QLatin1Char('\n');
            break;
        case 'r':
            out += QLatin1Char('\r');
            break;
        case 't':
            out += QLatin1Char('\t');
            break;
        case 'u': {
            if (at + 4 > size)
                return false;
            int unit = 0;
            for (int i = 0; i < 4; ++i) {
                const int digit = hexValue(json[at + i]);
                if (digit < 0)
                    return false;
                unit = unit * 16 + digit;
            }
            at += 4;
            out += QChar(ushort(unit));
            break;
        }
        default:
            return false;
        }
        runStart = at;
    }
    return false;
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
        bool control = false;
        if (!readString(json, at, text, control)) {
            if (!control)
                return false;
            offset = at;
            problem = QStringLiteral("control character in a string");
            return true;
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
