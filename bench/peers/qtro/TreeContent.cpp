#include "TreeContent.h"

namespace QtroBench {

namespace {

constexpr int AttributesPerItem = 4;
constexpr int ItemsPerGroup = 100;

} // namespace

TreeContent::Kind TreeContent::kind(int i) {
    switch (i % AttributesPerItem) {
    case 0:
    case 1:
        return Float;
    case 2:
        return String;
    default:
        return Vector;
    }
}

QString TreeContent::path(int i) {
    static const char* const Names[AttributesPerItem] = {"x", "y", "label", "position"};
    const int item = i / AttributesPerItem;
    return QLatin1String("scene/group") + QString::number(item / ItemsPerGroup) +
           QLatin1String("/item") + QString::number(item) + QLatin1Char('/') +
           QLatin1String(Names[i % AttributesPerItem]);
}

float TreeContent::floatValue(int i) {
    return float(i) * 0.5f;
}

QString TreeContent::stringValue(int i) {
    // "label-" and ten digits: 16 characters.
    return QLatin1String("label-") + QStringLiteral("%1").arg(i, 10, 10, QLatin1Char('0'));
}

QVector3D TreeContent::vectorValue(int i) {
    return QVector3D(float(i), float(i) + 0.25f, -float(i));
}

} // namespace QtroBench
