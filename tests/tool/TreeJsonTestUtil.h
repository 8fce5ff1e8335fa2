// Helpers for the tree-file tests: a tree that holds every type code with values that
// test the edges of each form, and a flat view of a tree (path -> type code and the
// bytes the type registry's serializer writes) to compare trees byte for byte.
#pragma once

#include "Dovel/bundle/Bundle.h"
#include "Dovel/bundle/BundleWriter.h"
#include "Dovel/types/TypeRegistry.h"

#include "Tessel/AttributeAlias.h"
#include "Tessel/AttributeAsset.h"
#include "Tessel/AttributeContainer.h"
#include "Tessel/AttributeEnum.h"
#include "Tessel/AttributeGrid.h"
#include "Tessel/AttributeSpline.h"
#include "Tessel/AttributeT.h"
#include "Tessel/Node.h"

#include <QStringList>

#include <cstdint>
#include <limits>
#include <map>

namespace TreeJsonTest {

using namespace Tessel;

// One attribute of every type code, some in nested nodes, with values at the edges of
// their JSON forms: fractions and whole floats, 64-bit integers beyond 2^53, strings
// with quotes and non-ASCII text, empty and odd-sized containers.
inline void buildEveryType(Node& root) {
    auto* values = new Node(&root, "values");
    new AttributeT<bool>(values, "flag", true);
    new AttributeT<Basalt::Color>(values, "tint", Basalt::Color(0.25f, 0.5f, 1.0f, 0.1f));
    new AttributeT<float>(values, "ratio", 0.1f);
    new AttributeT<double>(values, "precise", 1.0 / 3.0);
    new AttributeT<int>(values, "count", -7);
    new AttributeT<uint32_t>(values, "mask", 4294967295u);
    new AttributeT<int64_t>(values, "offset", std::numeric_limits<int64_t>::min());
    new AttributeT<uint64_t>(values, "serial", std::numeric_limits<uint64_t>::max());
    new AttributeT<Quant::Recti>(values, "area", Quant::Recti(-1, 2, 30, 40));
    new AttributeT<Quant::Rectf>(values, "region", Quant::Rectf(0.5f, -0.25f, 1e-3f, 3e38f));
    new AttributeT<Quant::Rectd>(values, "bounds", Quant::Rectd(0.1, 1e300, -5e-324, 2));
    new AttributeT<Quant::Vector2i>(values, "cell", Quant::Vector2i(3, -4));
    new AttributeT<Quant::Vector2f>(values, "uv", Quant::Vector2f(0.75f, 1.0f / 3.0f));
    new AttributeT<Quant::Vector3i>(values, "voxel", Quant::Vector3i(1, 2, 3));
    new AttributeT<Quant::Vector3f>(values, "position", Quant::Vector3f(0, 1.5f, -4));
    new AttributeT<Quant::Vector4i>(values, "quad", Quant::Vector4i(-1, 0, 1, 2147483647));
    new AttributeT<Quant::Vector4f>(values, "plane", Quant::Vector4f(1e-7f, 2, 3, 16777216));
    Quant::Matrix2f m2;
    m2.at(0, 1) = 0.5f;
    new AttributeT<Quant::Matrix2f>(values, "shear", m2);
    Quant::Matrix3f m3;
    m3.at(2, 0) = -2.5f;
    new AttributeT<Quant::Matrix3f>(values, "basis", m3);
    Quant::Matrix4f m4;
    m4.at(0, 3) = 10.0f;
    m4.at(3, 3) = 0.1f;
    new AttributeT<Quant::Matrix4f>(values, "transform", m4);
    new AttributeT<Basalt::TimeStamp>(values, "updated", Basalt::TimeStamp(1763855000123456));
    new AttributeT<QString>(values, "title", QStringLiteral("Grüße \"quoted\"\n"));
    new AttributeT<QStringList>(values, "tags", QStringList{"a", "", "c,d"});

    auto* lists = new Node(&root, "lists");
    new AttributeContainer<std::vector<float>>(lists, "weights", {0.5f, -1.0f, 2.0f});
    new AttributeContainer<std::vector<Quant::Vector2f>>(
        lists, "path", {Quant::Vector2f(0, 0), Quant::Vector2f(1.25f, -3)});
    new AttributeContainer<std::vector<int32_t>>(lists, "ids", {-2147483647 - 1, 0, 7});
    new AttributeContainer<std::vector<uint32_t>>(lists, "flags", {});
    new AttributeContainer<std::vector<QString>>(lists, "names", {"x", "y"});
    auto* grid = new AttributeGrid<uint8_t>(lists, "mask");
    const uint8_t cells[] = {0, 1, 2, 253, 254, 255};
    grid->setGrid(cells, 3, 2);
    auto* spline = new AttributeSpline(lists, "curve");
    spline->setPoints({Quant::Vector2f(0, 0), Quant::Vector2f(0.5f, 1)});

    auto* more = new Node(new Node(&root, "deep"), "er");
    new AttributeEnum(more, "mode", {{"off", 0}, {"on", 1}, {"auto", 5}}, 5);
    new AttributeT<Basalt::ColorPMA>(more, "glow", Basalt::ColorPMA(0.1f, 0.2f, 0.3f, 0.5f));
    new AttributeT<Quant::Vector2f, Separate>(more, "anchor", Quant::Vector2f(0.5f, -0.5f));
    new AttributeT<Quant::SizeF>(more, "extent", Quant::SizeF(1920.5f, 2));
    new AttributeAsset(more, "image", QStringLiteral("images/logo.png"));
    new AttributeT<Quant::SizeI>(more, "pixels", Quant::SizeI(1920, 1080));
    new Node(more, "empty");
}

// The type code and the serialized value of one attribute.
struct Leaf {
    uint32_t code = 0;
    QByteArray bytes;
    bool operator==(const Leaf& o) const { return code == o.code && bytes == o.bytes; }
};

inline void collect(const Dovel::TypeRegistry& registry, const Node& node, const QByteArray& path,
                    std::map<QByteArray, Leaf>& out) {
    for (Attribute* child : node.children()) {
        const QByteArray at = path.isEmpty() ? child->name() : path + '/' + child->name();
        if (auto* sub = dynamic_cast<Node*>(child)) {
            out[at + "/"] = Leaf(); // nodes take part too, so that empty ones count
            collect(registry, *sub, at, out);
            continue;
        }
        Leaf leaf;
        uint32_t size = 0;
        const Dovel::Serializer serializer = registry.createSerializer(child, leaf.code, size);
        if (serializer) {
            Dovel::Bundle bundle;
            Dovel::BundleWriterCore writer(bundle);
            serializer(writer);
            leaf.bytes = bundle.packet().mid(int(Dovel::BundleCore::HeaderSize));
        }
        out[at] = leaf;
    }
}

// Every path of the tree with its type code and value bytes (nodes end in "/").
inline std::map<QByteArray, Leaf> leaves(const Node& root) {
    static const Dovel::TypeRegistry registry;
    std::map<QByteArray, Leaf> out;
    collect(registry, root, QByteArray(), out);
    return out;
}

} // namespace TreeJsonTest
