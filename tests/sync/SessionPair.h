// Two synchronisation sessions wired back to back without sockets: each side has its
// own RemoteNode, dispatcher and modules, and pump() carries the output bundles of each
// side into the other until both are quiet. Everything runs on the test thread, which
// is the tree thread of both sides.
#pragma once

#include "Dovel/bundle/BundleDispatcher.h"
#include "Dovel/bundle/SymbolRegistryReceiver.h"
#include "Dovel/sync/AttributeRemoveReceiver.h"
#include "Dovel/sync/AttributeStorage.h"
#include "Dovel/sync/AttributeUpdateReceiver.h"
#include "Dovel/sync/NewAttributeReceiver.h"
#include "Dovel/sync/NodeChangeSender.h"
#include "Dovel/sync/OneWayEventReceiver.h"
#include "Dovel/sync/RemoteNode.h"
#include "Dovel/types/TypeRegistry.h"

#include "Basalt/SymbolRegistry.h"
#include "Basalt/Trace.h"

#include <memory>
#include <stdexcept>
#include <vector>

namespace SyncTest {

struct Session {
    // The modules in the order a session creates them.
    Session(Dovel::RemoteNode& node, bool master, bool createMissing) : node(node), storage(node) {
        dispatcher.addModule(std::make_shared<Dovel::SymbolRegistryReceiver>(peerSymbols));
        sender = std::make_shared<Dovel::NodeChangeSender>(node, storage, types);
        dispatcher.addSender(sender);
        remover = std::make_shared<Dovel::AttributeRemoveReceiver>(node, storage, *sender);
        creator = std::make_shared<Dovel::NewAttributeReceiver>(node, storage, peerSymbols, types,
                                                                *sender);
        updater = std::make_shared<Dovel::AttributeUpdateReceiver>(storage, *sender);
        events = std::make_shared<Dovel::OneWayEventReceiver>(peerSymbols);
        dispatcher.addModule(remover);
        dispatcher.addModule(creator);
        dispatcher.addModule(updater);
        dispatcher.addModule(events);
        creator->setSkipStaleValues(master);
        updater->setSkipStaleUpdates(master);
        creator->setCreateMissingAttributes(createMissing);
        events->setHandler([this](const QByteArray& name, Basalt::BinaryData& data) {
            this->node.handleRemoteEvent(name, data, long(reinterpret_cast<intptr_t>(this)));
        });
        node.update();
        sender->sendInitialValues();
    }

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
    Dovel::BundleDispatcher dispatcher;
    Basalt::SymbolRegistry peerSymbols;
    Dovel::TypeRegistry types;
    Dovel::AttributeStorage storage;
    std::shared_ptr<Dovel::NodeChangeSender> sender;
    std::shared_ptr<Dovel::AttributeRemoveReceiver> remover;
    std::shared_ptr<Dovel::NewAttributeReceiver> creator;
    std::shared_ptr<Dovel::AttributeUpdateReceiver> updater;
    std::shared_ptr<Dovel::OneWayEventReceiver> events;
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
