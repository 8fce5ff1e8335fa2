// RGBA colours as four floats. Plain value types whose bytes are r, g, b, a in order.
#pragma once

#include <QByteArray>

namespace Basalt {

struct Color {
    float r = 0.0f, g = 0.0f, b = 0.0f, a = 1.0f;

    Color() = default;
    Color(float r, float g, float b, float a = 1.0f) : r(r), g(g), b(b), a(a) {}

    // Parses "#rrggbb", "#rrggbbaa" (hex, alpha last) or three or four floats
    // separated by blanks or commas ("0.1 0.2 0.3 1"). False, and no change, when the
    // text is none of these.
    bool set(const QByteArray& text);
    // "r g b a" with the shortest exact float texts; set() reads it back.
    QByteArray toString() const;

    bool operator==(const Color& o) const { return r == o.r && g == o.g && b == o.b && a == o.a; }
    bool operator!=(const Color& o) const { return !(*this == o); }
};

// A colour whose r, g, b are already multiplied by a.
struct ColorPMA {
    float r = 0.0f, g = 0.0f, b = 0.0f, a = 1.0f;

    ColorPMA() = default;
    ColorPMA(float r, float g, float b, float a) : r(r), g(g), b(b), a(a) {}
    static ColorPMA fromColor(const Color& c) {
        return ColorPMA(c.r * c.a, c.g * c.a, c.b * c.a, c.a);
    }

    bool set(const QByteArray& text); // same forms as Color::set, taken as premultiplied
    QByteArray toString() const;

    bool operator==(const ColorPMA& o) const {
        return r == o.r && g == o.g && b == o.b && a == o.a;
    }
    bool operator!=(const ColorPMA& o) const { return !(*this == o); }
};

static_assert(sizeof(Color) == 16, "Color travels as its 16 bytes");
static_assert(sizeof(ColorPMA) == 16, "ColorPMA travels as its 16 bytes");

} // namespace Basalt
