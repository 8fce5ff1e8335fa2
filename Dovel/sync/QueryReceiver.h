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

#include <chrono>
#include <functional>

namespace Tessel {
class Attribute;
class Node;
} // namespace Tessel

namespace Dovel {

class PathPattern;
class PeerFootprint;
class PeerWriteRules;
class PendingBundleSender;
class RemoteNode;
class TypeRegistry;

class QueryReceiver : public BundleReceiver {
public:
    struct Options {
        // What the client may change; null: everything.
        const PeerWriteRules* rules = nullptr;
        // What its creations may cost against what it sent; null: no bound.
        PeerFootprint* footprint = nullptr;
        bool createMissing = true;
        // Removals delete what the tree holds, which the application may own otherwise
        // (an attribute that is a member of one of its objects): only a server whose
        // tree is all its own heap (as `dovel serve`'s) lets clients remove.
        bool mayRemove = false;
    };
    // The node, registry, sender and what the options point to outlive the receiver.
    QueryReceiver(RemoteNode& node, const TypeRegistry& types, PendingBundleSender& replies,
                  Options options);
    ~QueryReceiver() override;

    // Answers every request of the bundle in order.
    void handleBundle(BundleReader& reader) override;

private:
    Query::Reply read(BundleReader& reader);
    Query::Reply list(BundleReader& reader);
    Query::Reply write(BundleReader& reader);
    Query::Reply remove(BundleReader& reader);

    // Adds the entry for `attribute` at `path` when a session would carry it; false once
    // the answers of the pass would exceed their limit.
    bool add(Query::Reply& reply, uint32_t& bytes, Tessel::Attribute& attribute,
             const QByteArray& path, bool withValue) const;
    // Every carried attribute under `node`, whose path is `prefix`, that `pattern` (may
    // be null) matches.
    bool addUnder(Query::Reply& reply, uint32_t& bytes, Tessel::Node& node,
                  const QByteArray& prefix, bool withValue, const PathPattern* pattern);
    // Whether a session carries the attribute at `path`: its type has a wire form and
    // the sync flags share it.
    bool isCarried(Tessel::Attribute& attribute, const QByteArray& path) const;
    bool isShared(const QByteArray& path) const;
    bool mayWrite(const QByteArray& path) const;
    // Charges creating `path` (its missing nodes and the attribute) to the footprint.
    bool chargeCreation(const QByteArray& path) const;
    // Takes one visit of the tree's attributes from the client's allowance; false when
    // none is left.
    bool spendVisit();
    // Whether `path` matches `pattern` (in `matched`), the matching paid from the
    // allowance; false when it would cost more than is left, which is then spent.
    bool matchPaid(const PathPattern& pattern, const QByteArray& path, bool& matched);
    // Adds what has accrued since the last refill to the allowance.
    void refill();
    // Visits the value attributes under `node` (whose path is `prefix`) until `visit`
    // returns false or the allowance runs out; false then.
    bool walk(Tessel::Node& node, const QByteArray& prefix,
              const std::function<bool(Tessel::Attribute&, const QByteArray&)>& visit);

    RemoteNode& node;
    const TypeRegistry& types;
    PendingBundleSender& replies;
    const Options options;
    // The allowance of visits (Limits::QueryVisitBurst), and when it was last refilled.
    double visitsLeft;
    std::chrono::steady_clock::time_point refilled;
};

} // namespace Dovel
