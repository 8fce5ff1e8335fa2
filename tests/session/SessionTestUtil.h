// Helpers of the session tests: a side of a session (its own RemoteNode and its own
// tree thread), a snapshot of a tree as path -> encoded value, deadline waits, and
// values of every supported type.
#pragma once

#include "Dovel/bundle/BundleReader.h"
#include "Dovel/bundle/BundleWriter.h"
#include "Dovel/session/SessionClient.h"
#include "Dovel/session/SessionDriver.h"
#include "Dovel/session/SessionServer.h"
#include "Dovel/sync/RemoteNode.h"
#include "Dovel/types/MetaTypes.h"
#include "Dovel/types/TypeRegistry.h"

#include "Tessel/AttributeEnum.h"
#include "Tessel/AttributeT.h"

#include "TypeSamples.h"
#include "basalt/WaitUtil.h"

#include <gtest/gtest.h>

#include <QMap>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <limits>
#include <memory>

namespace SessionTest {

using BasaltTest::waitUntil;

// Values that travel both ways are set on the layer that received values use: a
// higher layer would hide every later value of the peer.
constexpr auto L2 = Tessel::Attribute::LayerRemote;

// A tree with its own tree thread. The node is declared first so that it outlives the
// driver; servers and clients are declared after a Side so that they go first. The
// driver runs a pass only when woken, so every test also shows that received work and
// local changes wake the tree thread.
struct Side {
    explicit Side(const QByteArray& name) : node(nullptr, name), driver(0) {}
    Dovel::RemoteNode node;
    Dovel::SessionDriver driver;

    // Runs `f` on the tree thread and waits.
    template <typename F> void run(F f) { ASSERT_TRUE(driver.call(std::function<void()>(f))); }
};

// path -> type code and encoded value of every attribute under the node, read on its
// tree thread.
inline QMap<QByteArray, QByteArray> snapshot(Side& side) {
    QMap<QByteArray, QByteArray> out;
    side.driver.call([&] {
        Dovel::TypeRegistry types;
        Dovel::walkAttributesWithPath(
            side.node, [&](Tessel::Attribute& attribute, const QByteArray& path) {
                uint32_t code = 0, size = 0;
                const Dovel::Serializer serializer = types.createSerializer(&attribute, code, size);
                if (!serializer) {
                    out.insert(path, "<none>");
                    return;
                }
                Dovel::Bundle bundle;
                Dovel::BundleWriterCore writer(bundle);
                serializer(writer);
                out.insert(path, QByteArray::number(code) + ":" + bundle.packet().toHex());
            });
    });
    return out;
}

inline QByteArray describe(const QMap<QByteArray, QByteArray>& snap) {
    QByteArray out;
    for (auto it = snap.constBegin(); it != snap.constEnd(); ++it)
        out += it.key() + "=" + it.value().left(60) + "\n";
    return out;
}

// Waits until both trees hold the same paths and values.
inline bool waitSame(Side& a, Side& b, int ms = 10000) {
    return waitUntil([&] { return snapshot(a) == snapshot(b); }, ms);
}

template <typename T>
Tessel::AttributeT<T>* typed(Dovel::RemoteNode& node, const QByteArray& path) {
    Tessel::Attribute* at = &node;
    for (const QByteArray& part : path.split('/')) {
        at = at ? at->attribute(part) : nullptr;
    }
    return dynamic_cast<Tessel::AttributeT<T>*>(at);
}

// The value of a float attribute read on its tree thread; NaN when it is missing.
inline float floatAt(Side& side, const QByteArray& path) {
    float value = std::numeric_limits<float>::quiet_NaN();
    side.driver.call([&] {
        if (auto* a = typed<float>(side.node, path))
            value = a->value();
    });
    return value;
}

inline bool hasPath(Side& side, const QByteArray& path) {
    return snapshot(side).contains(path);
}

// How many value attributes the tree holds, counted by a walk (which, unlike a
// snapshot, would see a path twice).
inline int attributeCount(Side& side) {
    int n = 0;
    side.driver.call(
        [&] { Dovel::walkAttributes(side.node, [&](Tessel::Attribute&) { ++n; }, {}); });
    return n;
}

using TypeSamples::allCodes;
using TypeSamples::fill;

} // namespace SessionTest
