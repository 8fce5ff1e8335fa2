// Two synchronisation sessions wired back to back without sockets: each side has its
// own RemoteNode and a manual BundleController, whose core creates the dispatcher and
// the modules as every session does; pump() carries the output bundles of each side
// into the other until both are quiet. Everything runs on the test thread, which is the
// tree thread of both sides. Input and output go straight through the core's
// dispatcher, so that a test sees exactly one output pass per output() call.
#pragma once

#include "Dovel/bundle/BundleDispatcher.h"
#include "Dovel/session/BundleController.h"
#include "Dovel/sync/AttributeStorage.h"
#include "Dovel/sync/NodeChangeSender.h"
#include "Dovel/sync/RemoteNode.h"

#include "Basalt/Trace.h"

#include <memory>
#include <stdexcept>
#include <vector>

namespace SyncTest {

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

} // namespace SyncTest
