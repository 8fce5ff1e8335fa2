#include "Tessel/AttributeAsset.h"

namespace Tessel {

AttributeAsset::AttributeAsset() = default;

AttributeAsset::AttributeAsset(Node* host, const QByteArray& name)
    : AttributeT<QString>(host, name) {}

AttributeAsset::AttributeAsset(Node* host, const QByteArray& name, const QString& defaultValue)
    : AttributeT<QString>(host, name, defaultValue) {}

AttributeAsset::~AttributeAsset() {
    aboutToBeDestroyed();
}

QByteArray AttributeAsset::type() const {
    return "asset";
}

} // namespace Tessel
