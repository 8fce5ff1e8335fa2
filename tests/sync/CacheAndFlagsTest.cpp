// AttributeCache, SyncFlags, the sync-flag rules of RemoteNode and makeRegExp.
#include "Dovel/sync/AttributeCache.h"
#include "Dovel/sync/RemoteNode.h"
#include "Dovel/sync/SyncFlags.h"

#include "Basalt/Trace.h"
#include "Tessel/AttributeT.h"

#include <gtest/gtest.h>

using Dovel::AttributeCache;
using Dovel::RemoteNode;
using Dovel::SyncFlags;
using Tessel::AttributeT;

TEST(AttributeCache, AddFindOrAddRemoveAndNodeSet) {
    AttributeCache cache;
    AttributeT<float> a, b;
    Basalt::TraceCapture capture;

    EXPECT_TRUE(cache.add(7, &a));
    EXPECT_TRUE(cache.add(7, &a));     // same pair: one entry
    EXPECT_EQ(cache.symbolOf(&a), 0u); // found back only once indexed (or observed)
    cache.index(7, &a);
    EXPECT_EQ(cache.size(), 1);
    EXPECT_FALSE(cache.add(7, &b));
    EXPECT_EQ(capture.count("AttributeCache::ensureExists # Found an existing symbol (7) "
                            "pointing to a different attribute",
                            Basalt::Trace::Error),
              1);
    EXPECT_EQ(cache.find(7), &a);
    EXPECT_EQ(cache.symbolOf(&a), 7u);
    EXPECT_EQ(cache.symbolOf(&b), 0u);
    EXPECT_FALSE(cache.add(8, nullptr)); // no attribute, no entry
    EXPECT_EQ(cache.find(8), nullptr);
    EXPECT_EQ(cache.size(), 1);

    cache.setIsNode(7, true);
    cache.setIsNode(7, true); // harmless twice
    EXPECT_TRUE(cache.isNode(7));
    EXPECT_TRUE(cache.remove(7));
    EXPECT_EQ(cache.find(7), nullptr);
    EXPECT_FALSE(cache.isNode(7));
    EXPECT_EQ(cache.symbolOf(&a), 0u);

    EXPECT_FALSE(cache.remove(7));
    EXPECT_EQ(capture.count("AttributeCache::remove # Trying to remove missing symbol: 7",
                            Basalt::Trace::Error),
              1);
    // After removal the symbol may name another attribute.
    EXPECT_TRUE(cache.add(7, &b));
    EXPECT_EQ(cache.find(7), &b);
    cache.setIsNode(8, true);
    cache.setIsNode(8, false);
    EXPECT_FALSE(cache.isNode(8));

    // findOrAdd keeps what a symbol names, silently, and adds only to a free one.
    const int errors = capture.count("", Basalt::Trace::Error);
    EXPECT_EQ(cache.findOrAdd(7, &a), &b);
    EXPECT_EQ(cache.findOrAdd(9, nullptr), nullptr);
    EXPECT_EQ(cache.findOrAdd(9, &a), &a);
    EXPECT_EQ(cache.find(9), &a);
    EXPECT_EQ(cache.size(), 2);
    EXPECT_EQ(capture.count("", Basalt::Trace::Error), errors);
}

TEST(SyncFlags, DefaultIsNotStoredAndClearKeepsFlags) {
    SyncFlags flags;
    EXPECT_EQ(flags.getFlags(3), SyncFlags::Sync);
    flags.setFlags(3, SyncFlags::Local);
    EXPECT_EQ(flags.getFlags(3), SyncFlags::Local);
    EXPECT_EQ(flags.storedCount(), 1);
    flags.setFlags(3, SyncFlags::Sync);
    EXPECT_EQ(flags.storedCount(), 0);

    const auto custom = SyncFlags::Flag(5); // application bits are kept
    flags.setFlags(4, custom);
    flags.clear();
    EXPECT_EQ(flags.getFlags(4), custom);
}

TEST(SyncFlags, IdRuleKeepsIdsLocalAtAnyDepth) {
    RemoteNode node(nullptr, "root");
    ASSERT_TRUE(node.addDeepAttribute("a/b/id", new AttributeT<int>()));
    ASSERT_TRUE(node.addDeepAttribute("a/identity", new AttributeT<int>()));
    ASSERT_TRUE(node.addDeepAttribute("id", new AttributeT<int>()));
    for (const char* path : {"a/xid", "x/id/a", "a/ID", "ida"})
        ASSERT_TRUE(node.addDeepAttribute(path, new AttributeT<int>()));
    // Names may hold zero bytes; the rule sees every byte of the path.
    const QByteArray zeroThenId("z\0/id", 5), idThenZero("n/id\0x", 7);
    ASSERT_TRUE(node.addDeepAttribute(zeroThenId, new AttributeT<int>()));
    ASSERT_TRUE(node.addDeepAttribute(idThenZero, new AttributeT<int>()));
    node.update();
    auto& registry = node.symbolRegistry();
    const auto flagOf = [&](const char* path) {
        return node.syncFlags().getFlags(registry.lookup(QByteArray(path)));
    };
    EXPECT_EQ(flagOf("a/b/id"), SyncFlags::Local);
    EXPECT_EQ(flagOf("id"), SyncFlags::Local);
    EXPECT_EQ(node.syncFlags().getFlags(registry.lookup(zeroThenId)), SyncFlags::Local);
    EXPECT_EQ(node.syncFlags().getFlags(registry.lookup(idThenZero)), SyncFlags::Sync);
    for (const char* path : {"a/identity", "a/xid", "x/id/a", "a/ID", "ida"})
        EXPECT_EQ(flagOf(path), SyncFlags::Sync) << path;

    // The same text as an application's case-blind rule is a rule of its own; it is
    // matched through the expression engine, which sees the zero bytes as well.
    node.setSyncFlags(QRegExp("(^|/)id$", Qt::CaseInsensitive), SyncFlags::Local);
    ASSERT_TRUE(node.addDeepAttribute("b/Id", new AttributeT<int>()));
    node.update();
    EXPECT_EQ(flagOf("a/ID"), SyncFlags::Local);
    EXPECT_EQ(flagOf("b/Id"), SyncFlags::Local);
    EXPECT_EQ(flagOf("a/xid"), SyncFlags::Sync);
    EXPECT_EQ(node.syncFlags().getFlags(registry.lookup(idThenZero)), SyncFlags::Sync);
}

TEST(SyncFlags, LaterRulesWinForExistingAndLaterAttributes) {
    {
        RemoteNode node(nullptr, "root");
        node.addDeepAttribute("a/b", new AttributeT<float>());
        node.update();
        node.setSyncFlags(RemoteNode::makeRegExp("**"), SyncFlags::Local);
        node.setSyncFlags(RemoteNode::makeRegExp("a/**"), SyncFlags::Sync);
        node.addDeepAttribute("c", new AttributeT<float>()); // added after the rules
        node.addDeepAttribute("a/d", new AttributeT<float>());
        node.update();
        auto& registry = node.symbolRegistry();
        EXPECT_EQ(node.syncFlags().getFlags(registry.lookup(QByteArray("a/b"))), SyncFlags::Sync);
        EXPECT_EQ(node.syncFlags().getFlags(registry.lookup(QByteArray("a/d"))), SyncFlags::Sync);
        EXPECT_EQ(node.syncFlags().getFlags(registry.lookup(QByteArray("c"))), SyncFlags::Local);
    }
    {
        RemoteNode node(nullptr, "root");
        node.setSyncFlags(RemoteNode::makeRegExp("a/**"), SyncFlags::Sync);
        node.setSyncFlags(RemoteNode::makeRegExp("**"), SyncFlags::Local);
        node.addDeepAttribute("a/b", new AttributeT<float>());
        node.update();
        EXPECT_EQ(node.syncFlags().getFlags(node.symbolRegistry().lookup(QByteArray("a/b"))),
                  SyncFlags::Local);
    }
}

TEST(MakeRegExp, EscapesAndWildcards) {
    auto match = [](const char* pattern, const char* path) {
        return RemoteNode::makeRegExp(pattern).indexIn(QString(path)) >= 0;
    };
    EXPECT_EQ(RemoteNode::makeRegExp("a/*/b").pattern(), QString("^a/[^/]+/b$"));
    EXPECT_EQ(RemoteNode::makeRegExp("a/**").pattern(), QString("^a/.+$"));
    EXPECT_TRUE(match("a/*/b", "a/x/b"));
    EXPECT_FALSE(match("a/*/b", "a/x/y/b"));
    EXPECT_FALSE(match("a/*/b", "a//b"));
    EXPECT_TRUE(match("a/**", "a/x"));
    EXPECT_TRUE(match("a/**", "a/x/y"));
    EXPECT_FALSE(match("a/**", "a"));
    EXPECT_FALSE(match("a/**", "a/"));
    EXPECT_FALSE(match("a/**", "ba/x")); // anchored
    EXPECT_TRUE(match("x.y/*", "x.y/z"));
    EXPECT_FALSE(match("x.y/*", "xay/z"));
    EXPECT_FALSE(match("x.y/*", "x.y/z/w"));
    EXPECT_TRUE(match("A(1)+", "A(1)+"));
    EXPECT_FALSE(match("a", "A")); // case-sensitive
}
