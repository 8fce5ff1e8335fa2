// The symbols a peer may define in one session are bounded: beyond the limit a new
// definition is refused with std::invalid_argument (which the session logs), while
// rebinding what is already known still works.
#include "BundleTestUtil.h"

#include "Dovel/Limits.h"
#include "Dovel/bundle/SymbolRegistryReceiver.h"

#include "Basalt/SymbolRegistry.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

using namespace Dovel;
using BundleTest::Bytes;
using BundleTest::packet;

TEST(PeerSymbolLimit, NewSymbolsBeyondTheLimitAreRefused) {
    Basalt::SymbolRegistry registry;
    SymbolRegistryReceiver receiver(registry, 3);
    Bytes symbols; // the fourth pair is one too many
    symbols.word(1).str("a").word(2).str("b").word(3).str("c").word(4).str("d").word(5).str("e");
    const Bundle first(packet(1, 1, 0, symbols.data()));
    BundleReader reader(first);
    EXPECT_EQ(BundleTest::failure<std::invalid_argument>([&] { receiver.handleBundle(reader); }),
              "SymbolRegistryReceiver::handleBundle # the peer defined more than 3 "
              "symbols; refusing 'd' (4)");
    EXPECT_EQ(registry.size(), 3);
    EXPECT_EQ(registry.lookup(3u), QByteArray("c"));
    EXPECT_TRUE(registry.lookup(4u).isNull());

    // At the limit, repeating or rebinding a known name or symbol changes no count.
    // The same pair again, a known name with a new symbol, a known symbol with a new name.
    const Bundle second(
        packet(1, 2, 0, Bytes().word(1).str("a").word(7).str("b").word(3).str("z").data()));
    BundleReader again(second);
    EXPECT_NO_THROW(receiver.handleBundle(again));
    EXPECT_EQ(registry.size(), 3);
    EXPECT_EQ(registry.lookup(QByteArray("b")), 7u);
    EXPECT_EQ(registry.lookup(3u), QByteArray("z"));
}

TEST(PeerSymbolLimit, NamesThisSideHoldsAreKeptOnceForBothRegistries) {
    Basalt::SymbolRegistry local;
    local.lookupOrDefine("tree/a");
    Basalt::SymbolRegistry peer;
    SymbolRegistryReceiver receiver(peer, Limits::MaxPeerSymbols, &local);
    const Bundle bundle(packet(1, 1, 0, Bytes().word(9).str("tree/a").word(8).str("new").data()));
    BundleReader reader(bundle);
    receiver.handleBundle(reader);
    EXPECT_EQ(peer.lookup(9u), QByteArray("tree/a"));
    EXPECT_EQ(peer.lookup(9u).constData(), local.lookup(1u).constData()); // shared bytes
    EXPECT_EQ(peer.lookup(8u), QByteArray("new"));
    EXPECT_EQ(local.lookup(QByteArray("new")), 0u); // looked up, never defined here
}
