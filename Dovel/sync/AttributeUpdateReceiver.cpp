#include "Dovel/sync/AttributeUpdateReceiver.h"

#include "Dovel/bundle/ModuleNames.h"
#include "Dovel/sync/AttributeStorage.h"
#include "Dovel/sync/NodeChangeSender.h"
#include "Dovel/sync/PeerWriteRules.h"

#include "Basalt/Trace.h"

namespace Dovel {

AttributeUpdateReceiver::AttributeUpdateReceiver(AttributeStorage& storage,
                                                 NodeChangeSender& sender)
    : BundleReceiver(ModuleNames::AttributeUpdate), storage(storage), sender(sender) {}

AttributeUpdateReceiver::~AttributeUpdateReceiver() = default;

void AttributeUpdateReceiver::handleBundle(BundleReader& reader) {
    const BundleCore& bundle = reader.bundle();
    const uint32_t acknowledged = bundle.headerWord(BundleCore::AcknowledgedWord);
    const uint32_t sequence = bundle.sequenceNumber();
    while (!reader.atEnd()) {
        const uint32_t symbol = reader.readUInt32();
        DovelSessionAttribute* sa = storage.findByReadSymbol(symbol);
        if (!sa) {
            Basalt::Trace::error(
                "AttributeUpdateHandler::handleBundle # BUG: unknown attribute with symbol %d",
                int(symbol));
            return;
        }
        const bool refused = writeRules && !writeRules->allowsEverything() &&
                             !writeRules->mayWrite(sender.pathOf(*sa));
        if (!refused && (!skipStale || acknowledged >= sa->lastSentSequence)) {
            sender.applyWithoutEcho(sa->localSymbol, [&] { sa->codecs.deserialize(reader); });
        } else {
            // The peer had not seen this side's latest value, or may not change it: read
            // its value past.
            uint32_t size = sa->fixedSize;
            if (size == 0) {
                size = reader.readUInt32();
                if (size == 0)
                    size = reader.readUInt32();
            }
            reader.read(size);
            if (refused) {
                // The peer gets this side's value back.
                sender.sendAgain(sa->localSymbol, false);
                writeRules->refuse(sender.pathOf(*sa));
            }
        }
        sa->valueReceived = sequence != 0;
    }
}

} // namespace Dovel
