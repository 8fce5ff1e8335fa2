#include "Dovel/sync/AttributeRemoveReceiver.h"

#include "Dovel/bundle/ModuleNames.h"
#include "Dovel/sync/AttributeStorage.h"
#include "Dovel/sync/NodeChangeSender.h"
#include "Dovel/sync/PeerFootprint.h"
#include "Dovel/sync/PeerWriteRules.h"
#include "Dovel/sync/RemoteNode.h"

#include "Basalt/Trace.h"
#include "Tessel/Attribute.h"

namespace Dovel {

AttributeRemoveReceiver::AttributeRemoveReceiver(RemoteNode& node, AttributeStorage& storage,
                                                 NodeChangeSender& sender)
    : BundleReceiver(ModuleNames::AttributeRemove), node(node), storage(storage), sender(sender) {}

AttributeRemoveReceiver::~AttributeRemoveReceiver() = default;

void AttributeRemoveReceiver::handleBundle(BundleReader& reader) {
    while (!reader.atEnd()) {
        const uint32_t symbol = reader.readUInt32();
        DovelSessionAttribute* sa = storage.findByReadSymbol(symbol);
        if (!sa) {
            Basalt::Trace::error(
                "AttributeRemoveHandler::handleBundle # Failed to find attribute with symbol %u",
                symbol);
            continue;
        }
        Tessel::Attribute* attribute = node.attributeCache().find(sa->localSymbol);
        if (!attribute) {
            Basalt::Trace::error("AttributeRemoveHandler::handleBundle # Attribute %u already "
                                 "removed",
                                 symbol);
            continue;
        }
        if (writeRules && !writeRules->allowsEverything() &&
            !writeRules->mayWrite(sender.pathOf(*sa))) {
            // The attribute stays, and the peer gets it back with this side's value.
            sender.sendAgain(sa->localSymbol, true);
            writeRules->refuse(sender.pathOf(*sa));
            continue;
        }
        if (!sa->localOrigin) {
            const NodeWatcher::Event echo{NodeWatcher::AttributeRemoved, sa->localSymbol};
            Tessel::Node* const host = attribute->host();
            sender.ignoreOne(echo);
            delete attribute; // detaches from its host; the watcher reports the removal
            sender.stopIgnoring(echo);
            removeEmptyCreated(host);
        }
        sa->valueReceived = false;
        sa->setTypeCode(0);
        sa->codecs.setDeserializer(skippingDeserializer(sa->fixedSize));
        sa->removedByPeer = true;
        sa->lastSentSequence = 0;
    }
}

void AttributeRemoveReceiver::removeEmptyCreated(Tessel::Node* host) {
    // Nodes are not sent: removing one makes no message, only the watcher's report.
    while (footprint && host && host != &node && host->childCount() == 0) {
        const unsigned int symbol = node.attributeCache().symbolOf(host);
        if (!symbol || !footprint->takeCreatedNode(symbol))
            return;
        Tessel::Node* const up = host->host();
        if (!up || !up->deleteAttribute(host))
            return;
        host = up;
    }
}

} // namespace Dovel
