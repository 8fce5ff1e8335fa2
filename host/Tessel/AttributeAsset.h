// A string attribute naming an asset file (a path relative to the asset folder). Lives
// on the tree thread.
#pragma once

#include "Tessel/AttributeT.h"

namespace Tessel {

class AttributeAsset : public AttributeT<QString> {
public:
    AttributeAsset();
    AttributeAsset(Node* host, const QByteArray& name);
    AttributeAsset(Node* host, const QByteArray& name, const QString& defaultValue);
    ~AttributeAsset() override;

    QByteArray type() const override;
};

} // namespace Tessel
