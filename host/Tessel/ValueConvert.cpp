#include "Tessel/ValueConvert.h"

#include <QRegularExpression>

#include <charconv>

namespace Tessel {
namespace Convert {

namespace {

template <typename F> QString shortestText(F value) {
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof(buffer), value);
    return QString::fromLatin1(buffer, int(result.ptr - buffer));
}

} // namespace

QString floatText(float value) {
    return shortestText(value);
}

QString doubleText(double value) {
    return shortestText(value);
}

bool parseNumbers(const QString& text, std::vector<double>& out) {
    static const QRegularExpression separators(QStringLiteral("[\\s,]+"));
    const QStringList parts = text.split(separators, Qt::SkipEmptyParts);
    if (parts.isEmpty())
        return false;
    std::vector<double> values;
    values.reserve(size_t(parts.size()));
    for (const QString& part : parts) {
        bool ok = false;
        values.push_back(part.toDouble(&ok));
        if (!ok)
            return false;
    }
    out.swap(values);
    return true;
}

QString joinNumbers(const std::vector<double>& values, bool singlePrecision) {
    QString text;
    for (size_t i = 0; i < values.size(); ++i) {
        if (i)
            text += QLatin1Char(' ');
        text += singlePrecision ? floatText(float(values[i])) : doubleText(values[i]);
    }
    return text;
}

} // namespace Convert
} // namespace Tessel
