// A batch of bundles from a peer, dispatched into a live synchronisation session: every
// receiver, a real tree holding attributes of every type (an alias and a local-only
// path among them), and the sender's output passes in between. The first input byte
// chooses the session's role: bit 0 master (stale values skipped), bit 1 creation of
// missing attributes. The rest is a stream of packets, each taking as many bytes as its
// header's size word says (clamped to what is left). Only the documented
// std::invalid_argument and std::out_of_range may leave a dispatch.
#include "FuzzSupport.h"
#include "SessionHarness.h"

#include "Dovel/bundle/Bundle.h"

#include "Tessel/AttributeAlias.h"
#include "Tessel/AttributeEnum.h"
#include "Tessel/AttributeT.h"

#include <QByteArray>
#include <QRegExp>

#include <cstdint>
#include <stdexcept>
#include <vector>

namespace {

const uint32_t allCodes[] = {1,  2,  3,  4,  9,  10, 11, 12, 13, 14, 15, 16,
                             17, 19, 20, 22, 23, 26, 29, 32, 34, 35, 36, 40,
                             41, 42, 43, 44, 45, 46, 47, 48, 49, 50, 51, 52};

void populate(Dovel::RemoteNode& node) {
    Dovel::TypeRegistry types;
    for (uint32_t code : allCodes)
        node.addDeepAttribute("t/" + QByteArray::number(code), types.createAttribute(code));
    node.addDeepAttribute("obj/id", new Tessel::AttributeT<int>(nullptr, "", 3));
    node.addDeepAttribute("obj/mode",
                          new Tessel::AttributeEnum(nullptr, "", {{"off", 0}, {"on", 1}}));
    auto* target = new Tessel::AttributeT<float>(nullptr, "", 1.0f);
    node.addDeepAttribute("obj/target", target);
    node.addDeepAttribute("obj/alias", new Tessel::AttributeAlias(nullptr, "", target));
    node.addDeepAttribute("obj/dangling", new Tessel::AttributeAlias(nullptr, "", nullptr));
    node.setSyncFlags(QRegExp(".*/id"), Dovel::SyncFlags::Local);
}

void dispatchChecked(SessionHarness::Session& session, const Dovel::Bundle& bundle) {
    Dovel::BundleReader reader(bundle);
    try {
        session.dispatcher.dispatchBundle(reader);
    } catch (const std::invalid_argument&) {
    } catch (const std::out_of_range&) {
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzSupport::silenceLog();
    if (size == 0)
        return 0;

    Dovel::RemoteNode node(nullptr, "fuzz");
    populate(node);
    SessionHarness::Session session(node, (data[0] & 1) != 0, (data[0] & 2) != 0);
    session.output();
    size_t at = 1;
    int count = 0;
    while (at < size) {
        const QByteArray bytes = FuzzSupport::nextPacket(data, size, at);
        try {
            dispatchChecked(session, Dovel::Bundle(bytes));
        } catch (const std::invalid_argument&) {
            continue; // a corrupted packet never reaches dispatch
        }
        if (++count % 4 == 0)
            session.output();
    }
    session.output();
    return 0;
}
