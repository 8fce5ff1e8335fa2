// AttributeCache, SyncFlags and the sync-flag rules of RemoteNode.
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

TEST(AttributeCache, ASymbolNamesOneAttributeUntilRemoved) {
    AttributeCache cache;
    AttributeT<float> a, b;
    Basalt::TraceCapture capture;
    EXPECT_TRUE(cache.add(7, &a));
    EXPECT_TRUE(cache.add(7, &a));     // same pair: one entry
    EXPECT_EQ(cache.symbolOf(&a), 0u); // found back only once indexed (or observed)
    cache.index(7, &a);
    EXPECT_FALSE(cache.add(7, &b));
    EXPECT_EQ(capture.count("", Basalt::Trace::Error), 1);
    EXPECT_EQ(cache.symbolOf(&a), 7u);
    EXPECT_EQ(cache.symbolOf(&b), 0u);
    EXPECT_FALSE(cache.add(8, nullptr)); // no attribute, no entry
    EXPECT_EQ(cache.size(), 1);

    cache.setIsNode(7, true);
    EXPECT_TRUE(cache.remove(7));
    EXPECT_EQ(cache.find(7), nullptr);
    EXPECT_FALSE(cache.isNode(7));
    EXPECT_EQ(cache.symbolOf(&a), 0u);
    EXPECT_FALSE(cache.remove(7));
    // After removal the symbol may name another attribute; findOrAdd keeps what a
    // symbol names, silently, and adds only to a free one.
    EXPECT_TRUE(cache.add(7, &b));
    const int errors = capture.count("", Basalt::Trace::Error);
    EXPECT_EQ(cache.findOrAdd(7, &a), &b);
    EXPECT_EQ(cache.findOrAdd(9, nullptr), nullptr);
    EXPECT_EQ(cache.findOrAdd(9, &a), &a);
    EXPECT_EQ(cache.size(), 2);
    EXPECT_EQ(capture.count("", Basalt::Trace::Error), errors);
}

TEST(SyncFlags, TheIdRuleAndLaterRulesWinForExistingAndLaterAttributes) {
    SyncFlags flags;
    const auto custom = SyncFlags::Flag(5); // application bits survive clear()
    flags.setFlags(4, custom);
    flags.setFlags(3, SyncFlags::Local);
    flags.setFlags(3, SyncFlags::Sync); // the default is not stored
    EXPECT_EQ(flags.storedCount(), 1);
    flags.clear();
    EXPECT_EQ(flags.getFlags(4), custom);

    RemoteNode node(nullptr, "root");
    // Names may hold zero bytes; the id rule sees every byte of the path.
    const QByteArray zeroThenId("z\0/id", 5), idThenZero("n/id\0x", 7);
    const QByteArray local[] = {"a/b/id", "id", zeroThenId};
    const QByteArray shared[] = {"a/identity", "a/xid", "x/id/a", "a/ID", "ida", idThenZero};
    for (const QByteArray& path : local)
        ASSERT_TRUE(node.addDeepAttribute(path, new AttributeT<int>()));
    for (const QByteArray& path : shared)
        ASSERT_TRUE(node.addDeepAttribute(path, new AttributeT<int>()));
    node.addDeepAttribute("s/b", new AttributeT<float>());
    node.update();
    const auto flagOf = [&](const QByteArray& path) {
        return node.syncFlags().getFlags(node.symbolRegistry().lookup(path));
    };
    for (const QByteArray& path : local)
        EXPECT_EQ(flagOf(path), SyncFlags::Local) << path.constData();
    for (const QByteArray& path : shared)
        EXPECT_EQ(flagOf(path), SyncFlags::Sync) << path.constData();

    // Rules apply to what exists and to what comes later, the later rule winning; a
    // case-blind expression sees zero bytes as well.
    node.setSyncFlags(QRegExp("(^|/)id$", Qt::CaseInsensitive), SyncFlags::Local);
    EXPECT_EQ(flagOf("a/ID"), SyncFlags::Local);
    EXPECT_EQ(flagOf("a/xid"), SyncFlags::Sync);
    EXPECT_EQ(flagOf(idThenZero), SyncFlags::Sync);
    node.setSyncFlags(RemoteNode::makeRegExp("s/**"), SyncFlags::Local);
    node.setSyncFlags(RemoteNode::makeRegExp("**"), SyncFlags::Local);
    node.setSyncFlags(RemoteNode::makeRegExp("s/**"), SyncFlags::Sync);
    node.addDeepAttribute("s/d", new AttributeT<float>());
    node.addDeepAttribute("c", new AttributeT<float>());
    node.update();
    EXPECT_EQ(flagOf("s/b"), SyncFlags::Sync);
    EXPECT_EQ(flagOf("s/d"), SyncFlags::Sync);
    EXPECT_EQ(flagOf("c"), SyncFlags::Local);
}
