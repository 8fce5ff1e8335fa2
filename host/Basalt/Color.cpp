#include "Basalt/Color.h"

#include <QList>

#include <charconv>
#include <cmath>

namespace Basalt {

namespace {

int hexDigit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// A whole token as a float, in the C locale; "inf" and "nan" included so that every
// text toString() writes reads back.
bool parseFloat(const QByteArray& token, float& out) {
    const char* first = token.constData();
    const char* last = first + token.size();
    if (first != last && *first == '+')
        ++first;
    const auto result = std::from_chars(first, last, out);
    return result.ec == std::errc() && result.ptr == last;
}

// The four components of "#rrggbb", "#rrggbbaa" or three or four numbers.
bool parse(const QByteArray& input, float (&rgba)[4]) {
    const QByteArray text = input.trimmed();
    if (text.startsWith('#')) {
        const int digits = text.size() - 1;
        if (digits != 6 && digits != 8)
            return false;
        rgba[3] = 1.0f;
        for (int i = 0; i < digits / 2; ++i) {
            const int hi = hexDigit(text[1 + 2 * i]);
            const int lo = hexDigit(text[2 + 2 * i]);
            if (hi < 0 || lo < 0)
                return false;
            rgba[i] = float(hi * 16 + lo) / 255.0f;
        }
        return true;
    }
    QByteArray spaced = text;
    spaced.replace(',', ' ');
    const QList<QByteArray> tokens = spaced.simplified().split(' ');
    if (tokens.size() != 3 && tokens.size() != 4)
        return false;
    rgba[3] = 1.0f;
    for (int i = 0; i < tokens.size(); ++i) {
        if (!parseFloat(tokens[i], rgba[i]))
            return false;
    }
    return true;
}

// The shortest text that reads back as exactly this float.
QByteArray shortest(float value) {
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return QByteArray(buffer, int(result.ptr - buffer));
}

QByteArray join(float r, float g, float b, float a) {
    return shortest(r) + ' ' + shortest(g) + ' ' + shortest(b) + ' ' + shortest(a);
}

// Both colour types take the same text forms into their four floats.
template <typename C> bool setFromText(C& colour, const QByteArray& text) {
    float rgba[4];
    if (!parse(text, rgba))
        return false;
    colour.r = rgba[0];
    colour.g = rgba[1];
    colour.b = rgba[2];
    colour.a = rgba[3];
    return true;
}

} // namespace

bool Color::set(const QByteArray& text) {
    return setFromText(*this, text);
}

QByteArray Color::toString() const {
    return join(r, g, b, a);
}

bool ColorPMA::set(const QByteArray& text) {
    return setFromText(*this, text);
}

QByteArray ColorPMA::toString() const {
    return join(r, g, b, a);
}

} // namespace Basalt
