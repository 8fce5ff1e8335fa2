// An integer attribute whose values have names. Lives on the tree thread.
//
// The names are labels: any integer is accepted (a peer may know values this side does
// not). The text form is the name of the value, or its number when it has none; set()
// from text takes a name or a number.
#pragma once

#include "Tessel/AttributeT.h"

#include <QList>
#include <QPair>

namespace Tessel {

class AttributeEnum : public AttributeT<int> {
public:
    using Names = QList<QPair<QString, int>>;

    AttributeEnum();
    AttributeEnum(Node* host, const QByteArray& name, const Names& names = Names(),
                  int defaultValue = 0);
    ~AttributeEnum() override;

    QByteArray type() const override;

    // Adds or renames the value.
    void addName(const QString& name, int value);
    const Names& names() const { return valueNames; }
    // Null string when the value has no name.
    QString nameOf(int value) const;
    // False when no value has that name.
    bool valueOf(const QString& name, int& value) const;

    QString asString(bool* ok = nullptr, Layer layer = LayerCurrent) const override;
    bool set(const QString& value, Layer layer, ValueUnit unit = UnitNumber) override;
    using AttributeT<int>::set;

private:
    Names valueNames;
};

} // namespace Tessel
