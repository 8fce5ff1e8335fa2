// Bundles from a peer: the input is a stream of packets, each taking as many bytes as
// its header's size word says (clamped to what is left). Every packet is checked by
// Bundle(QByteArray) and dispatched into a session whose handshake, symbol and probe
// modules read it; output passes run between bundles and go to a second session wired
// back. Only the documented std::invalid_argument and std::out_of_range may leave a
// dispatch: anything else escapes and crashes the fuzzer.
#include "Dovel/bundle/Bundle.h"
#include "Dovel/bundle/BundleDispatcher.h"
#include "Dovel/bundle/BundleReader.h"
#include "Dovel/bundle/BundleReceiver.h"
#include "Dovel/bundle/BundleSender.h"
#include "Dovel/bundle/BundleWriter.h"
#include "Dovel/bundle/ModuleNames.h"
#include "Dovel/bundle/PeerSymbols.h"
#include "Dovel/bundle/SymbolRegistryReceiver.h"
#include "FuzzSupport.h"

#include "Basalt/SymbolRegistry.h"

#include <QByteArray>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <vector>

namespace {

using namespace Dovel;

// Reads its payload through the reader's whole API, steered by the payload itself.
class ProbeReceiver : public BundleReceiver {
public:
    explicit ProbeReceiver(const char* name) : BundleReceiver(name) {}
    void handleBundle(BundleReader& reader) override {
        QByteArray bytes;
        QString text;
        while (!reader.atEnd()) {
            switch (reader.readUInt32() % 8) {
            case 0:
                reader.readBinary(bytes, 64);
                break;
            case 1:
                reader.readString(bytes, 64);
                break;
            case 2:
                reader.readString(text, 16);
                break;
            case 3:
                reader.read(bytes);
                break;
            case 4:
                reader.readUInt64();
                break;
            case 5:
                reader.readDouble();
                break;
            case 6:
                reader.read(reader.readUInt32());
                break;
            default:
                reader.readString();
                break;
            }
        }
    }
};

// Asks for the attribute types and echoes back, as symbols, what the session learnt.
class EchoSender : public BundleSender {
public:
    explicit EchoSender(Dovel::PeerSymbols& registry) : registry(registry) {}
    void initialize(BundleDispatcher& dispatcher) override {
        updateType = dispatcher.resolveMessageType(ModuleNames::AttributeUpdate);
        for (const char* name :
             {ModuleNames::AttributeNew, ModuleNames::AttributeRemove, ModuleNames::OneWayEvent})
            dispatcher.resolveMessageType(name);
    }
    void writeUpdates(BundleOutput& output) override {
        Bundle bundle;
        BundleWriter writer(bundle);
        for (uint32_t symbol = 1; symbol <= 4; ++symbol) {
            const QByteArray name = registry.lookup(symbol);
            if (name.isNull())
                continue;
            writer.writeUInt32(symbol);
            writer.writeBytes(name);
        }
        output.finish(bundle, symbolMessageType);
        writer.writeUInt32(uint32_t(registry.size()));
        output.finish(bundle, updateType);
    }

private:
    Dovel::PeerSymbols& registry;
    uint32_t updateType = NoMessageType;
};

struct Session {
    Session() {
        dispatcher.addModule(std::make_shared<SymbolRegistryReceiver>(registry));
        for (const char* name : {ModuleNames::AttributeNew, ModuleNames::AttributeUpdate,
                                 ModuleNames::AttributeRemove, ModuleNames::OneWayEvent})
            dispatcher.addModule(std::make_shared<ProbeReceiver>(name));
        dispatcher.addSender(std::make_shared<EchoSender>(registry));
    }
    Dovel::PeerSymbols registry;
    BundleDispatcher dispatcher;
};

void dispatchChecked(BundleDispatcher& dispatcher, const Bundle& bundle) {
    BundleReader reader(bundle);
    try {
        dispatcher.dispatchBundle(reader);
    } catch (const std::invalid_argument&) {
    } catch (const std::out_of_range&) {
    }
}

// An output pass of `from`, delivered into `to`.
void exchange(Session& from, Session& to) {
    std::vector<Bundle> out;
    from.dispatcher.writeUpdates(out);
    for (const Bundle& bundle : out)
        dispatchChecked(to.dispatcher, bundle);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzSupport::silenceLog();

    Session session;
    Session peer;
    size_t at = 0;
    int count = 0;
    while (at < size) {
        const QByteArray bytes = FuzzSupport::nextPacket(data, size, at);
        try {
            const Bundle bundle(bytes);
            dispatchChecked(session.dispatcher, bundle);
        } catch (const std::invalid_argument&) {
            continue; // a corrupted packet never reaches dispatch
        }
        if (++count % 4 == 0) {
            exchange(session, peer);
            exchange(peer, session);
        }
    }
    exchange(session, peer);
    exchange(peer, session);
    return 0;
}
