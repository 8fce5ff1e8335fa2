// The harness of the synchronisation and session tests.
// - Session and pump(): two sessions wired back to back without sockets, each with its
//   own RemoteNode and a manual BundleController; everything runs on the test thread,
//   which is the tree thread of both sides, and input and output go straight through
//   the core's dispatcher, so that a test sees exactly one output pass per output().
// - Side, snapshot() and the deadline waits: a tree with its own tree thread, for
//   sessions over loopback TCP.
// - Recorder and ev(): the events a NodeWatcher reports.
#pragma once

#include "Dovel/bundle/BundleDispatcher.h"
#include "Dovel/bundle/BundleReader.h"
#include "Dovel/bundle/BundleWriter.h"
#include "Dovel/session/BundleController.h"
#include "Dovel/session/SessionClient.h"
#include "Dovel/session/SessionDriver.h"
#include "Dovel/session/SessionServer.h"
#include "Dovel/sync/AttributeStorage.h"
#include "Dovel/sync/NodeChangeSender.h"
#include "Dovel/sync/NodeWatcher.h"
#include "Dovel/sync/RemoteNode.h"
#include "Dovel/types/MetaTypes.h"
#include "Dovel/types/TypeRegistry.h"

#include "Basalt/BinaryData.h"
#include "Basalt/Trace.h"
#include "Tessel/AttributeT.h"

#include "TypeSamples.h"
#include "basalt/WaitUtil.h"

#include <QMap>

#include <limits>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <vector>

namespace Dovel {
inline std::ostream& operator<<(std::ostream& out, const NodeWatcher::Event& event) {
    static const char* names[] = {"AttributeAdded", "AttributeRemoved", "AttributeChanged",
                                  "NodeAdded", "NodeRemoved"};
    return out << (event.type <= 4 ? names[event.type] : "?") << "(" << event.symbol << ")";
}
} // namespace Dovel

namespace SessionHarness {

using BasaltTest::waitUntil;
using Dovel::NodeWatcher;
using Event = Dovel::NodeWatcher::Event;
using TypeSamples::allCodes;
using TypeSamples::fill;

// Values that travel both ways are set on the layer that received values use: a
// higher layer would hide every later value of the peer.
constexpr auto L2 = Tessel::Attribute::LayerRemote;
constexpr auto L3 = Tessel::Attribute::LayerUser; // above what a peer sets

// The message types of the tree modules, as the handshake binds them in a Session.
namespace MessageTypes {
enum : uint32_t { SymbolsType = 1, NewType, UpdateType, RemoveType, EventType };
} // namespace MessageTypes

struct Session {
    Session(Dovel::RemoteNode& node, bool master, bool createMissing)
        : node(node), controller(create(node, master, createMissing, this)),
          core(initialized(controller)), dispatcher(core->bundleDispatcher()),
          storage(*core->storage()), sender(core->sender()) {}

    // One output pass, after the node's pending additions are reported.
    std::vector<Dovel::Bundle> output() {
        node.update();
        std::vector<Dovel::Bundle> out;
        dispatcher.writeUpdates(out);
        return out;
    }
    // Dispatches bundles as the controller does: a failing bundle is logged and the
    // next one still runs.
    void input(const std::vector<Dovel::Bundle>& bundles) {
        for (const Dovel::Bundle& bundle : bundles) {
            Dovel::BundleReader reader(bundle);
            try {
                dispatcher.dispatchBundle(reader);
            } catch (const std::exception& e) {
                Basalt::Trace::warning("Session::input # %s", e.what());
            }
        }
    }

    Dovel::RemoteNode& node;
    std::shared_ptr<Dovel::BundleController> controller;
    std::shared_ptr<Dovel::BundleController::Core> core;
    Dovel::BundleDispatcher& dispatcher;
    Dovel::AttributeStorage& storage;
    Dovel::NodeChangeSender* sender;

private:
    static std::shared_ptr<Dovel::BundleController> create(Dovel::RemoteNode& node, bool master,
                                                           bool createMissing, Session* self) {
        Dovel::BundleControllerParams params;
        params.isMaster = master;
        params.createMissingAttributes = createMissing;
        params.autoUpdate = false;
        params.oneWayEventHandler = [&node, self](const QByteArray& name,
                                                  Basalt::BinaryData& data) {
            node.handleRemoteEvent(name, data, long(reinterpret_cast<intptr_t>(self)));
        };
        return Dovel::BundleController::create(node, params);
    }
    static std::shared_ptr<Dovel::BundleController::Core>
    initialized(const std::shared_ptr<Dovel::BundleController>& controller) {
        std::shared_ptr<Dovel::BundleController::Core> c = controller->lockCore();
        c->ensureIsInitialized(); // announces the whole tree once
        return c;
    }
};

// Carries output both ways until neither side has anything more to say; returns the
// number of bundles moved (handshake bundles included).
inline int pump(Session& a, Session& b, int maxRounds = 20) {
    int moved = 0;
    for (int round = 0; round < maxRounds; ++round) {
        const std::vector<Dovel::Bundle> fromA = a.output();
        const std::vector<Dovel::Bundle> fromB = b.output();
        if (fromA.empty() && fromB.empty())
            return moved;
        b.input(fromA);
        a.input(fromB);
        moved += int(fromA.size() + fromB.size());
    }
    throw std::runtime_error("sessions did not settle");
}

// The attribute at `path` under `root`, or null.
inline Tessel::Attribute* at(Tessel::Attribute& root, const QByteArray& path) {
    Tessel::Attribute* a = &root;
    for (const QByteArray& part : path.split('/'))
        a = a ? a->attribute(part) : nullptr;
    return a;
}
template <typename T>
Tessel::AttributeT<T>* typed(Tessel::Attribute& root, const QByteArray& path) {
    return dynamic_cast<Tessel::AttributeT<T>*>(at(root, path));
}

inline Event ev(NodeWatcher::EventType type, unsigned int symbol) {
    return Event{type, symbol};
}

// Collects every event it is given, in order.
struct Recorder {
    std::vector<Event> events;
    std::function<void(const Event&)> callback() {
        return [this](const Event& event) { events.push_back(event); };
    }
    std::vector<Event> take() {
        std::vector<Event> out;
        out.swap(events);
        return out;
    }
};

// What a peer sends to begin a sliced event: id, event name, slice size, total bytes.
inline Basalt::BinaryData sliceBegin(int32_t id, const QByteArray& name, int32_t sliceSize,
                                     int64_t total) {
    Basalt::BinaryData data;
    data.writeInt32(id);
    data.write(name);
    data.writeInt32(sliceSize);
    data.writeInt64(total);
    return data;
}
// One slice of a sliced event: id, slice index, the bytes as a blob.
inline Basalt::BinaryData slicePart(int32_t id, int32_t index, const QByteArray& bytes) {
    Basalt::BinaryData data;
    data.writeInt32(id);
    data.writeInt32(index);
    data.writeBlob(bytes.constData(), bytes.size());
    return data;
}

// A tree with its own tree thread. The node is declared first so that it outlives the
// driver; servers and clients are declared after a Side so that they go first. The
// driver runs a pass only when woken, so every test also shows that received work and
// local changes wake the tree thread.
struct Side {
    explicit Side(const QByteArray& name) : node(nullptr, name), driver(0) {}
    Dovel::RemoteNode node;
    Dovel::SessionDriver driver;

    // Runs `f` on the tree thread and waits; throws when the driver could not run it.
    template <typename F> void run(F f) {
        if (!driver.call(std::function<void()>(f)))
            throw std::runtime_error("the tree thread did not run the call");
    }
};

// The bytes a serializer writes for the attribute's current value, and its type code.
inline QByteArray encoded(const Dovel::TypeRegistry& types, Tessel::Attribute& attribute,
                          uint32_t* code) {
    uint32_t size = 0;
    const Dovel::Serializer serializer = types.createSerializer(&attribute, *code, size);
    if (!serializer)
        return QByteArray("<none>");
    Dovel::Bundle bundle;
    Dovel::BundleWriterCore writer(bundle);
    serializer(writer);
    return bundle.packet();
}

// path -> type code and encoded value of every attribute under the node, read on its
// tree thread.
inline QMap<QByteArray, QByteArray> snapshot(Side& side) {
    QMap<QByteArray, QByteArray> out;
    side.driver.call([&] {
        Dovel::TypeRegistry types;
        Dovel::walkAttributesWithPath(
            side.node, [&](Tessel::Attribute& attribute, const QByteArray& path) {
                uint32_t code = 0;
                const QByteArray bytes = encoded(types, attribute, &code);
                out.insert(path, QByteArray::number(code) + ":" + bytes.toHex());
            });
    });
    return out;
}

// Waits until both trees hold the same paths and values.
inline bool waitSame(Side& a, Side& b, int ms = 10000) {
    return waitUntil([&] { return snapshot(a) == snapshot(b); }, ms);
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

// Sets a float that exists, on the side's tree thread.
inline void setFloat(Side& side, const QByteArray& path, float value) {
    bool found = false;
    side.run([&] {
        if (auto* a = typed<float>(side.node, path)) {
            a->setValue(value, L2);
            found = true;
        }
    });
    if (!found)
        throw std::runtime_error("no float at " + path.toStdString());
}

// How many value attributes the tree holds, counted by a walk (which, unlike a
// snapshot, would see a path twice).
inline int attributeCount(Side& side) {
    int n = 0;
    side.driver.call(
        [&] { Dovel::walkAttributes(side.node, [&](Tessel::Attribute&) { ++n; }, {}); });
    return n;
}

} // namespace SessionHarness
