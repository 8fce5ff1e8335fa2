// A light client's requests ("Dovel.Query") against a tree of every type, an alias, a
// dangling alias and a local-only path among them. The first input byte chooses the
// server's choices: bit 0 creation of missing attributes, bit 1 removals allowed, bit 2
// a read-only tree with one writable pattern. The rest is a stream of packets, each
// taking as many bytes as its header's size word says (clamped to what is left); the
// answers are written out between them. Only the documented std::invalid_argument and
// std::out_of_range may leave a request.
#include "FuzzSupport.h"

#include "Dovel/bundle/Bundle.h"
#include "Dovel/bundle/BundleDispatcher.h"
#include "Dovel/bundle/ModuleNames.h"
#include "Dovel/bundle/PendingBundleSender.h"
#include "Dovel/sync/PeerFootprint.h"
#include "Dovel/sync/PeerWriteRules.h"
#include "Dovel/sync/QueryReceiver.h"
#include "Dovel/sync/RemoteNode.h"
#include "Dovel/types/TypeRegistry.h"

#include "Tessel/AttributeAlias.h"
#include "Tessel/AttributeT.h"

#include <QByteArray>
#include <QRegExp>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <vector>

namespace {

void populate(Dovel::RemoteNode& node, const Dovel::TypeRegistry& types) {
    for (uint32_t code = 1; code <= 52; ++code)
        if (Tessel::Attribute* made = types.createAttribute(code))
            node.addDeepAttribute("t/" + QByteArray::number(code), made);
    node.addDeepAttribute("obj/id", new Tessel::AttributeT<int>(nullptr, "", 3));
    auto* target = new Tessel::AttributeT<float>(nullptr, "", 1.0f);
    node.addDeepAttribute("obj/target", target);
    node.addDeepAttribute("obj/alias", new Tessel::AttributeAlias(nullptr, "", target));
    node.addDeepAttribute("obj/dangling", new Tessel::AttributeAlias(nullptr, "", nullptr));
    node.setSyncFlags(QRegExp(".*/id"), Dovel::SyncFlags::Local);
    node.processPendingAdditions();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzSupport::silenceLog();
    if (size == 0)
        return 0;
    const Dovel::TypeRegistry types;
    Dovel::RemoteNode node(nullptr, "fuzz");
    populate(node, types);
    Dovel::BundleDispatcher dispatcher;
    auto replies = std::make_shared<Dovel::PendingBundleSender>(Dovel::ModuleNames::QueryReply);
    dispatcher.addSender(replies);
    const Dovel::PeerWriteRules rules = Dovel::PeerWriteRules::readOnly({"t/**"});
    Dovel::PeerFootprint footprint;
    Dovel::QueryReceiver::Options options;
    options.createMissing = (data[0] & 1) != 0;
    options.mayRemove = (data[0] & 2) != 0;
    options.rules = (data[0] & 4) != 0 ? &rules : nullptr;
    options.footprint = &footprint;
    Dovel::QueryReceiver receiver(node, types, *replies, options);
    size_t at = 1;
    std::vector<Dovel::Bundle> out;
    while (at < size) {
        const QByteArray bytes = FuzzSupport::nextPacket(data, size, at);
        try {
            const Dovel::Bundle bundle(bytes);
            footprint.received(bundle.size());
            Dovel::BundleReader reader(bundle);
            receiver.handleBundle(reader);
        } catch (const std::invalid_argument&) {
        } catch (const std::out_of_range&) {
        }
        dispatcher.writeUpdates(out);
        node.update();
    }
    return 0;
}
