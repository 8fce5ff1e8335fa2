// Seeds for the bundle fuzz target, made by the library's own code. Each seed is a
// stream of packets as a peer would send them, well formed except the broken one. Write
// them with
//   DOVEL_WRITE_CORPUS=fuzz/corpus/bundle build/bin/test_bundle --gtest_filter='BundleCorpus.*'
#include "BundleTestUtil.h"
#include "CorpusSeeds.h"

#include "Dovel/bundle/PeerSymbols.h"
#include "Dovel/bundle/SymbolRegistryReceiver.h"

#include "Basalt/SymbolRegistry.h"

#include <gtest/gtest.h>

#include <map>
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

// A session as the library starts one: symbol module and a sender of the four types.
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
    Dovel::PeerSymbols registry;
    BundleDispatcher dispatcher;
    std::shared_ptr<TestSender> sender = std::make_shared<TestSender>();
};

std::map<QString, QByteArray> makeSeeds() {
    std::map<QString, QByteArray> seeds;
    seeds["fresh_handshake"] = stream(Session().pass());

    Session withSymbols;
    withSymbols.sender->symbols = {{1, "root/a"}, {2, "root/b/c"}, {3, ""}};
    withSymbols.sender->updates = {Bytes().word(1).word(0).str("ab").data()};
    seeds["symbols"] = stream(withSymbols.pass());

    // A peer that offers only the symbol module answers one ok and four errors.
    Dovel::PeerSymbols registry;
    BundleDispatcher peer;
    peer.addModule(std::make_shared<SymbolRegistryReceiver>(registry));
    for (const Bundle& b : Session().pass()) {
        BundleReader reader(b);
        peer.dispatchBundle(reader);
    }
    std::vector<Bundle> replies;
    peer.writeUpdates(replies);
    seeds["replies"] = stream(replies);

    // Payloads that steer the fuzz target's probe modules (bound as types 2 to 5).
    QByteArray probes = stream(Session().pass());
    Bytes probe;
    probe.word(0).str("binary").word(1).str("string").word(2).str("text");
    probe.word(4).word(1).word(2).word(6).word(4).raw("wxyz");
    probes += packet(3, 2, 0, probe.data());
    probes += packet(9, 3, 0, Bytes().word(1).data()); // an unbound type
    seeds["probes"] = probes;

    // Broken input: a symbol pair cut short, an unknown command that overran its
    // length, a string over its limit, and a last packet cut short.
    QByteArray broken = stream(Session().pass());
    broken += packet(1, 2, 0, Bytes().word(1).str("root/a").word(2).word(10).raw("abc").data());
    broken += packet(0, 3, 0, Bytes().word(0).str("bogus").data());
    broken += packet(2, 4, 0, Bytes().word(1).word(65).raw(QByteArray(68, 'x')).data());
    broken += packet(4, 5, 0, Bytes().word(1).word(2).data()).left(20);
    seeds["truncated"] = broken;
    return seeds;
}

// Splits a stream as the fuzz target does; false when a packet is not a valid bundle.
bool splitsCleanly(const QByteArray& bytes) {
    BundleCore whole(bytes);
    BundleReaderCore reader(whole);
    while (!reader.atEnd()) {
        const uint32_t size = reader.readUInt32();
        if (uint64_t(reader.pos()) - 4 + 16 + size > uint64_t(bytes.size()))
            return false;
        reader.read(12 + size);
    }
    return true;
}

} // namespace

TEST(BundleCorpus, SeedsAreMadeByTheLibrary) {
    const std::map<QString, QByteArray> seeds = makeSeeds();
    for (const auto& seed : seeds)
        EXPECT_EQ(splitsCleanly(seed.second), seed.first != "truncated")
            << seed.first.toStdString();

    CorpusSeeds::Seeds files;
    for (const auto& seed : seeds)
        files.emplace_back(seed.first + ".bin", seed.second);
    CorpusSeeds::writeOrCompare("bundle", files);
}
