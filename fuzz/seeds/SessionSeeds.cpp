// Seeds of the session target: a mode byte (bit 0 master, bit 1 create), then the
// packets a real session sends over a few periods: the first announcement of a tree of
// every type, updates, a removal, an addition, and on request a plain and a sliced event.
#include "Seeds.h"
#include "SessionHarness.h"
#include "TypeSamples.h"

#include "Tessel/AttributeT.h"

using Dovel::Bundle;
using Dovel::RemoteNode;
using Tessel::Attribute;
using Tessel::AttributeT;

namespace {

void append(QByteArray& stream, const std::vector<Bundle>& bundles) {
    for (const Bundle& bundle : bundles)
        stream.append(bundle.packet());
}

QByteArray peerStream(bool withEvents) {
    RemoteNode node(nullptr, "peer");
    Dovel::TypeRegistry types;
    for (uint32_t code : TypeSamples::allCodes)
        node.addDeepAttribute("t/" + QByteArray::number(code), types.createAttribute(code));
    auto* count = new AttributeT<int>(nullptr, "", 1);
    auto* text = new AttributeT<QString>(nullptr, "", "one");
    node.addDeepAttribute("obj/count", count);
    node.addDeepAttribute("obj/text", text);
    SessionHarness::Session session(node, false, true);
    QByteArray stream;
    append(stream, session.output());
    count->set(2, Attribute::LayerRemote);
    text->set(QStringLiteral("two"), Attribute::LayerRemote);
    append(stream, session.output());
    delete count;
    node.addDeepAttribute("obj/extra", new AttributeT<float>(nullptr, "", 0.25f));
    append(stream, session.output());
    if (withEvents) {
        Basalt::BinaryData small = Basalt::BinaryData::fromByteArray("hello");
        node.eventProcess("note", small);
        Basalt::BinaryData big = Basalt::BinaryData::fromByteArray(QByteArray(300, 'x'));
        node.eventProcessSlice("bulk", big, 128);
        append(stream, session.output());
    }
    return stream;
}

} // namespace

FuzzSeeds::Seeds FuzzSeeds::session() {
    Seeds seeds;
    seeds.emplace_back("mirror_create.bin", QByteArray(1, char(2)) + peerStream(true));
    seeds.emplace_back("master_existing.bin", QByteArray(1, char(1)) + peerStream(false));
    return seeds;
}
