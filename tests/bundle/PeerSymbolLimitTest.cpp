// The symbol definitions a peer may make in one session are bounded: beyond the limit a
// definition that would change the registry (a new pair, or a known name or symbol bound
// anew, which may make the receiver create another attribute) is refused with
// std::invalid_argument (which the session logs), while repeating a known pair is not.
// A name longer than any path is left undefined.
#include "BundleTestUtil.h"

#include "Dovel/Limits.h"
#include "Dovel/bundle/PeerSymbols.h"
#include "Dovel/bundle/SymbolRegistryReceiver.h"

#include "Basalt/SymbolRegistry.h"
#include "Basalt/Trace.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

using namespace Dovel;
using BundleTest::Bytes;
using BundleTest::packet;

TEST(PeerSymbolLimit, DefinitionsBeyondTheLimitAreRefusedRebindingsIncluded) {
    Dovel::PeerSymbols registry;
    SymbolRegistryReceiver receiver(registry, 4);
    Bytes symbols; // the fifth definition is one too many: a rebinding counts
    symbols.word(1).str("a").word(2).str("b").word(3).str("c").word(3).str("z").word(5).str("e");
    const Bundle first(packet(1, 1, 0, symbols.data()));
    BundleReader reader(first);
    EXPECT_EQ(BundleTest::failure<std::invalid_argument>([&] { receiver.handleBundle(reader); }),
              "SymbolRegistryReceiver::handleBundle # the peer defined more than 4 "
              "symbols; refusing 'e' (5)");
    EXPECT_EQ(registry.size(), 3);
    EXPECT_EQ(registry.lookup(3u), QByteArray("z"));
    EXPECT_TRUE(registry.lookup(5u).isNull());

    // At the limit, the same pair again changes nothing and is taken; binding a known
    // name to a new symbol is refused like a new pair, and the name keeps its symbol.
    const Bundle second(packet(1, 2, 0, Bytes().word(1).str("a").word(2).str("b").data()));
    BundleReader again(second);
    EXPECT_NO_THROW(receiver.handleBundle(again));
    const Bundle third(packet(1, 3, 0, Bytes().word(7).str("b").data()));
    BundleReader rebind(third);
    EXPECT_THROW(receiver.handleBundle(rebind), std::invalid_argument);
    EXPECT_TRUE(registry.lookup(7u).isNull());
    EXPECT_EQ(registry.lookup(2u), QByteArray("b"));
}

TEST(PeerSymbolLimit, ANameLongerThanAnyPathStaysUndefined) {
    Dovel::PeerSymbols registry;
    SymbolRegistryReceiver receiver(registry);
    Basalt::TraceCapture log;
    const QByteArray longest(Limits::MaxPeerNameBytes, 'n');
    const QByteArray tooLong = longest + 'n';
    const Bundle bundle(
        packet(1, 1, 0, Bytes().word(1).str(tooLong).word(2).str(longest).word(3).str("c").data()));
    BundleReader reader(bundle);
    EXPECT_NO_THROW(receiver.handleBundle(reader));
    EXPECT_TRUE(registry.lookup(1u).isNull());
    EXPECT_EQ(registry.lookup(2u), longest);
    EXPECT_EQ(registry.lookup(3u), QByteArray("c"));
    EXPECT_EQ(log.count(QStringLiteral("SymbolRegistryReceiver::handleBundle # A name of %1 bytes "
                                       "is longer than %2; symbol 1 stays undefined ('%3...')")
                            .arg(Limits::MaxPeerNameBytes + 1)
                            .arg(Limits::MaxPeerNameBytes)
                            .arg(QString(80, 'n')),
                        Basalt::Trace::Error),
              1);
}

// A peer's name that this side's registry holds is kept as this side's symbol once
// bound and settled; one it does not is kept whole until then. Either way it reads back
// the same, and a symbol named anew reads its new name while its binding stands, until
// its bound name comes again.
TEST(PeerSymbolLimit, SettledNamesAreKeptAsThisSidesSymbols) {
    Basalt::SymbolRegistry local;
    Dovel::PeerSymbols registry;
    registry.shareWith(local);
    const uint32_t known = local.lookupOrDefine("scene/a");
    EXPECT_TRUE(registry.define("scene/a", 7));
    EXPECT_FALSE(registry.define("scene/a", 7));
    EXPECT_TRUE(registry.define("scene/b", 8));
    const uint32_t b = local.lookupOrDefine("scene/b");
    registry.settle(8, b); // not bound: the name waits on
    EXPECT_NE(registry.pendingName(8), nullptr);
    registry.bind(8, b);
    registry.settle(8, b);
    EXPECT_EQ(registry.pendingName(8), nullptr);
    EXPECT_EQ(registry.lookup(7u), QByteArray("scene/a"));
    EXPECT_EQ(registry.lookup(8u), QByteArray("scene/b"));
    EXPECT_FALSE(registry.define("scene/b", 8));
    EXPECT_TRUE(registry.define("elsewhere", 8));
    EXPECT_EQ(registry.lookup(8u), QByteArray("elsewhere"));
    EXPECT_EQ(registry.boundTo(8), b);
    EXPECT_TRUE(registry.define("scene/b", 8)); // settled again
    EXPECT_EQ(registry.pendingName(8), nullptr);
    EXPECT_EQ(registry.lookup(8u), QByteArray("scene/b"));
    EXPECT_TRUE(registry.define("elsewhere", 7));
    EXPECT_EQ(registry.lookup(7u), QByteArray("elsewhere"));
    EXPECT_TRUE(registry.define("scene/a", 7));
    EXPECT_EQ(registry.lookup(7u), QByteArray("scene/a"));
    EXPECT_EQ(local.lookup(QByteArray("scene/a")), known);
    EXPECT_EQ(registry.size(), 2);

    // A pair still waiting to be settled, repeated after its name was created here: the
    // same definition, not a new one (the limit counts new ones).
    EXPECT_TRUE(registry.define("scene/c", 9));
    local.lookupOrDefine("scene/c");
    EXPECT_FALSE(registry.define("scene/c", 9));
    EXPECT_EQ(registry.lookup(9u), QByteArray("scene/c"));
    EXPECT_EQ(registry.size(), 3);
}
