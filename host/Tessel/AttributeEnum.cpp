#include "Tessel/AttributeEnum.h"

namespace Tessel {

AttributeEnum::AttributeEnum() = default;

AttributeEnum::AttributeEnum(Node* host, const QByteArray& name, const Names& names,
                             int defaultValue)
    : AttributeT<int>(host, name, defaultValue), valueNames(names) {}

AttributeEnum::~AttributeEnum() {
    aboutToBeDestroyed();
}

QByteArray AttributeEnum::type() const {
    return "enum";
}

void AttributeEnum::addName(const QString& name, int value) {
    for (auto& entry : valueNames) {
        if (entry.second == value) {
            entry.first = name;
            return;
        }
    }
    valueNames.append(qMakePair(name, value));
}

QString AttributeEnum::nameOf(int value) const {
    for (const auto& entry : valueNames)
        if (entry.second == value)
            return entry.first;
    return QString();
}

bool AttributeEnum::valueOf(const QString& name, int& value) const {
    for (const auto& entry : valueNames) {
        if (entry.first == name) {
            value = entry.second;
            return true;
        }
    }
    return false;
}

QString AttributeEnum::asString(bool* ok, Layer layer) const {
    const int* stored = valueOnLayer(layer);
    if (ok)
        *ok = stored != nullptr;
    if (!stored)
        return QString();
    const QString text = nameOf(*stored);
    return text.isNull() ? QString::number(*stored) : text;
}

bool AttributeEnum::set(const QString& value, Layer layer, ValueUnit unit) {
    int number = 0;
    if (unit == UnitNumber && valueOf(value.trimmed(), number))
        return AttributeT<int>::set(number, layer, unit);
    return AttributeT<int>::set(value, layer, unit);
}

} // namespace Tessel
