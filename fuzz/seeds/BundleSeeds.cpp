// Seeds of the bundle target: streams of packets as a peer sends them, from a session
// started as the library starts one, well formed except "truncated".
#include "Seeds.h"
#include "bundle/BundleTestUtil.h"

#include "Dovel/bundle/PeerSymbols.h"
#include "Dovel/bundle/SymbolRegistryReceiver.h"

#include <memory>

using namespace Dovel;
using BundleTest::Bytes;
using BundleTest::packet;
using BundleTest::TestSender;

namespace {

QByteArray stream(const std::vector<Bundle>& bundles) {
    QByteArray bytes;
    for (const Bundle& b : bundles)
        bytes.append(b.packet());
    return bytes;
}

// The symbol module and a sender of the four attribute types.
struct Session {
    Session() {
        dispatcher.addModule(std::make_shared<SymbolRegistryReceiver>(registry));
        dispatcher.addSender(sender);
    }
    std::vector<Bundle> pass() {
        std::vector<Bundle> out;
        dispatcher.writeUpdates(out);
        return out;
    }
    PeerSymbols registry;
    BundleDispatcher dispatcher;
    std::shared_ptr<TestSender> sender = std::make_shared<TestSender>();
};

} // namespace

FuzzSeeds::Seeds FuzzSeeds::bundle() {
    Seeds seeds;
    seeds.emplace_back("fresh_handshake.bin", stream(Session().pass()));

    Session withSymbols;
    withSymbols.sender->symbols = {{1, "root/a"}, {2, "root/b/c"}, {3, ""}};
    withSymbols.sender->updates = {Bytes().word(1).word(0).str("ab").data()};
    seeds.emplace_back("symbols.bin", stream(withSymbols.pass()));

    // A peer that offers only the symbol module answers one ok and four errors.
    PeerSymbols registry;
    BundleDispatcher peer;
    peer.addModule(std::make_shared<SymbolRegistryReceiver>(registry));
    for (const Bundle& b : Session().pass()) {
        BundleReader reader(b);
        peer.dispatchBundle(reader);
    }
    std::vector<Bundle> replies;
    peer.writeUpdates(replies);
    seeds.emplace_back("replies.bin", stream(replies));

    // Payloads that steer the target's probe modules (bound as types 2 to 5).
    QByteArray probes = stream(Session().pass());
    Bytes probe;
    probe.word(0).str("binary").word(1).str("string").word(2).str("text");
    probe.word(4).word(1).word(2).word(6).word(4).raw("wxyz");
    probes += packet(3, 2, 0, probe.data());
    probes += packet(9, 3, 0, Bytes().word(1).data()); // an unbound type
    seeds.emplace_back("probes.bin", probes);

    // A symbol pair cut short, an unknown command that overran its length, a string
    // over its limit, and a last packet cut short.
    QByteArray broken = stream(Session().pass());
    broken += packet(1, 2, 0, Bytes().word(1).str("root/a").word(2).word(10).raw("abc").data());
    broken += packet(0, 3, 0, Bytes().word(0).str("bogus").data());
    broken += packet(2, 4, 0, Bytes().word(1).word(65).raw(QByteArray(68, 'x')).data());
    broken += packet(4, 5, 0, Bytes().word(1).word(2).data()).left(20);
    seeds.emplace_back("truncated.bin", broken);
    return seeds;
}
