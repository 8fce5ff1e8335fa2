// The sync-flag rules of RemoteNode: what stays local and which rule wins.
#include "Dovel/sync/SyncFlags.h"
#include "Dovel/sync/RemoteNode.h"

#include "Tessel/AttributeT.h"

#include <gtest/gtest.h>

using Dovel::RemoteNode;
using Dovel::SyncFlags;
using Tessel::AttributeT;

TEST(SyncFlags, TheIdRuleAndLaterRulesWinForExistingAndLaterAttributes) {
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
