// The server's end of the query module ("Dovel.Query"): answers a light client's
// questions about the shared tree and applies its writes and removals, all or nothing
// per request, replying through a PendingBundleSender ("Dovel.QueryReply"). What it
// changes is a local change of the tree, so every ordinary session sends it on to its
// peer (a removal travels as the protocol's removal).
//
// Only what a session would carry is shown: attributes whose type has a wire form and
// whose path the sync flags share. The server's write rules and its choice to create
// missing attributes hold for queries as for a peer's announcements. See QueryWire.h for
// the requests and replies.
//
// Thread contract: the tree's thread, as every module of a session.
#pragma once

#include "Dovel/bundle/BundleReceiver.h"
#include "Dovel/sync/QueryWire.h"

namespace Tessel {
class Attribute;
class Node;
} // namespace Tessel

namespace Dovel {

class PeerWriteRules;
class PendingBundleSender;
class RemoteNode;
class TypeRegistry;

class QueryReceiver : public BundleReceiver {
public:
    // `rules` null: the peer may write everything. All four outlive the receiver.
    QueryReceiver(RemoteNode& node, const TypeRegistry& types, PendingBundleSender& replies,
                  const PeerWriteRules* rules, bool createMissing);
    ~QueryReceiver() override;

    // Answers every request of the bundle in order.
    void handleBundle(BundleReader& reader) override;

private:
    Query::Reply read(BundleReader& reader);
    Query::Reply list(BundleReader& reader);
    Query::Reply write(BundleReader& reader);
    Query::Reply remove(BundleReader& reader);

    // Adds the entry for `attribute` at `path` when a session would carry it; false once
    // the reply would exceed its limit.
    bool add(Query::Reply& reply, uint32_t& bytes, Tessel::Attribute& attribute,
             const QByteArray& path, bool withValue) const;
    // Every carried attribute under `node`, whose path is `prefix`.
    bool addUnder(Query::Reply& reply, uint32_t& bytes, Tessel::Node& node,
                  const QByteArray& prefix, bool withValue, const QString& pattern) const;
    bool isShared(const QByteArray& path) const;
    bool mayWrite(const QByteArray& path) const;

    RemoteNode& node;
    const TypeRegistry& types;
    PendingBundleSender& replies;
    const PeerWriteRules* rules;
    const bool createMissing;
};

} // namespace Dovel
