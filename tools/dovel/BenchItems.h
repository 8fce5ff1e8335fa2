// The tree of the `initial` workload, shared with bench/bench_session: N attributes in
// items of four (two floats, a string of 16 bytes, a 3-float vector) under nested
// nodes, scene/layerL/groupG/itemI/{a,b,name,pos}, 100 items to a group and 100 groups
// to a layer. Header-only, so that a benchmark can use it without the tool.
#pragma once

#include "Quant/Vector.h"
#include "Tessel/AttributeT.h"
#include "Tessel/Node.h"

#include <QByteArray>
#include <QString>

namespace DovelTool {

constexpr int ItemAttributes = 4;
constexpr int ItemsPerGroup = 100;
constexpr int GroupsPerLayer = 100;

// N rounded up to whole items.
inline int wholeItems(int attributes) {
    return (attributes + ItemAttributes - 1) / ItemAttributes * ItemAttributes;
}

// Builds the tree of wholeItems(attributes) attributes under `root`; call it on the
// tree's thread.
inline void buildItems(Tessel::Node& root, int attributes) {
    auto* scene = new Tessel::Node(&root, "scene");
    const int items = wholeItems(attributes) / ItemAttributes;
    Tessel::Node* layer = nullptr;
    Tessel::Node* group = nullptr;
    for (int i = 0; i < items; ++i) {
        const int g = i / ItemsPerGroup;
        if (i % (ItemsPerGroup * GroupsPerLayer) == 0)
            layer = new Tessel::Node(scene, "layer" + QByteArray::number(g / GroupsPerLayer));
        if (i % ItemsPerGroup == 0)
            group = new Tessel::Node(layer, "group" + QByteArray::number(g));
        auto* item = new Tessel::Node(group, "item" + QByteArray::number(i));
        new Tessel::AttributeT<float>(item, "a", float(i));
        new Tessel::AttributeT<float>(item, "b", float(i) * 0.5f);
        new Tessel::AttributeT<QString>(item, "name",
                                        QStringLiteral("item-%1").arg(i, 11, 10, QLatin1Char('0')));
        new Tessel::AttributeT<Quant::Vector3f>(item, "pos",
                                                Quant::Vector3f(float(i), float(g), 1.0f));
    }
}

} // namespace DovelTool
