#include "Dovel/sync/OneWayEventReceiver.h"

#include "Dovel/bundle/ModuleNames.h"
#include "Dovel/bundle/PeerSymbols.h"
#include "Dovel/sync/PeerWriteRules.h"

#include "Basalt/Trace.h"

namespace Dovel {

OneWayEventReceiver::OneWayEventReceiver(const PeerSymbols& peerSymbols)
    : BundleReceiver(ModuleNames::OneWayEvent), peerSymbols(peerSymbols) {}

OneWayEventReceiver::~OneWayEventReceiver() = default;

void OneWayEventReceiver::handleBundle(BundleReader& reader) {
    while (!reader.atEnd()) {
        const uint32_t symbol = reader.readUInt32();
        const uint32_t length = reader.readUInt32();
        // Bounded by the bytes present: a longer claim throws before anything is copied.
        const char* bytes = reader.read(length);
        const QByteArray name = peerSymbols.lookup(symbol);
        if (name.isEmpty()) {
            Basalt::Trace::warning("OneWayEventReceiver::handleBundle # Symbol %u not found",
                                   symbol);
            continue;
        }
        if (writeRules && !writeRules->mayWrite(name)) {
            writeRules->refuse(name);
            continue;
        }
        if (!eventHandler)
            continue;
        // The handler gets its own bytes: the bundle's are shared and must stay intact.
        Basalt::BinaryData data = Basalt::BinaryData::fromByteArray(QByteArray(bytes, int(length)));
        eventHandler(name, data);
    }
}

} // namespace Dovel
