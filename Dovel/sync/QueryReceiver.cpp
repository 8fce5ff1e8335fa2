#include "Dovel/sync/QueryReceiver.h"

#include "Dovel/Limits.h"
#include "Dovel/bundle/ModuleNames.h"
#include "Dovel/bundle/PendingBundleSender.h"
#include "Dovel/sync/PathPattern.h"
#include "Dovel/sync/PeerFootprint.h"
#include "Dovel/sync/PeerWriteRules.h"
#include "Dovel/sync/RemoteNode.h"
#include "Dovel/types/TypeRegistry.h"

#include "Tessel/AttributeAlias.h"
#include "Tessel/Node.h"

#include <QSet>

#include <functional>

#include <memory>

namespace Dovel {

using Tessel::Attribute;
using Tessel::AttributeAlias;
using Tessel::Node;

namespace {

// A path a client may name: names joined by '/', none empty, not deeper than a peer's
// announcement may go. The empty path is the root.
bool isWellFormed(const QByteArray& path) {
    if (path.isEmpty())
        return true;
    const QList<QByteArray> names = path.split('/');
    if (names.size() > Limits::MaxPeerPathDepth)
        return false;
    for (const QByteArray& name : names)
        if (name.isEmpty())
            return false;
    return true;
}

// Where a path leads: the attribute it names as its parent lists it (`listed`, an alias
// or the attribute itself) and that resolved (`found`); or, when a value stands on the
// way, that value and its path (`blocker`).
struct Place {
    Attribute* listed = nullptr;
    Attribute* found = nullptr;
    Node* parent = nullptr;
    Attribute* blocker = nullptr;
    QByteArray blockerPath;
    bool dangling = false; // an alias without a target on the way (or at the end)
};

Place locate(Node& root, const QByteArray& path) {
    Place place;
    if (path.isEmpty()) {
        place.found = &root;
        return place;
    }
    Node* at = &root;
    QByteArray walked;
    const QList<QByteArray> names = path.split('/');
    for (int i = 0; i < names.size(); ++i) {
        Attribute* listed = at->attribute(names[i]);
        if (!listed)
            return place;
        Attribute* resolved = AttributeAlias::resolve(listed);
        if (!resolved) {
            place.dangling = true;
            return place;
        }
        walked = childPath(walked, names[i]);
        if (i + 1 == names.size()) {
            place.listed = listed;
            place.found = resolved;
            place.parent = at;
            return place;
        }
        at = Tessel::asNode(resolved);
        if (!at) {
            place.blocker = resolved;
            place.blockerPath = walked;
            return place;
        }
    }
    return place;
}

uint32_t typeCodeOf(const TypeRegistry& types, Attribute& attribute) {
    uint32_t code = 0;
    uint32_t size = 0;
    types.createSerializer(&attribute, code, size);
    return code;
}

Query::Reply failed(Query::Status status, uint32_t index) {
    Query::Reply reply;
    reply.status = status;
    reply.index = index;
    return reply;
}

// Most wildcards a list pattern may hold: a pattern names a part of the tree.
constexpr int MaxPatternWildcards = 8;

// The count of a request's items, refused above the limit.
bool readCount(BundleReader& reader, uint32_t& count) {
    count = reader.readUInt32();
    return count <= uint32_t(Limits::MaxQueryItems);
}

// A request's count of paths and the paths; false for a count above the limit.
bool readPaths(BundleReader& reader, std::vector<QByteArray>& paths) {
    uint32_t count = 0;
    if (!readCount(reader, count))
        return false;
    for (uint32_t i = 0; i < count; ++i) {
        paths.emplace_back();
        reader.readString(paths.back(), uint32_t(Limits::MaxPeerNameBytes));
    }
    return true;
}

} // namespace

QueryReceiver::QueryReceiver(RemoteNode& node, const TypeRegistry& types,
                             PendingBundleSender& replies, Options options)
    : BundleReceiver(ModuleNames::Query), node(node), types(types), replies(replies),
      options(options), visitsLeft(double(Limits::QueryVisitBurst)),
      refilled(std::chrono::steady_clock::now()) {}

QueryReceiver::~QueryReceiver() = default;

void QueryReceiver::handleBundle(BundleReader& reader) {
    while (!reader.atEnd()) {
        const uint32_t id = reader.readUInt32();
        Query::Reply reply;
        try {
            switch (reader.readUInt32()) {
            case Query::Read:
                reply = read(reader);
                break;
            case Query::List:
                reply = list(reader);
                break;
            case Query::Write:
                reply = write(reader);
                break;
            case Query::Remove:
                reply = remove(reader);
                break;
            default:
                reply = failed(Query::Unknown, 0);
                break;
            }
        } catch (const std::exception&) {
            // A truncated item, an over-long path or a string with a zero byte: the rest
            // of the bundle cannot be found.
            reply = failed(Query::Invalid, uint32_t(-1));
        }
        reply.id = id;
        Query::writeReply(replies.writer(), reply);
        if (reply.status == Query::Unknown ||
            (reply.status == Query::Invalid && reply.index == uint32_t(-1)))
            return;
    }
}

bool QueryReceiver::isShared(const QByteArray& path) const {
    if (path == "id" || path.endsWith("/id"))
        return false;
    const unsigned int symbol = node.symbolRegistry().lookup(path);
    return symbol == 0 || (node.syncFlags().getFlags(symbol) & SyncFlags::Sync);
}

bool QueryReceiver::isCarried(Attribute& attribute, const QByteArray& path) const {
    return isShared(path) && typeCodeOf(types, attribute) != 0;
}

bool QueryReceiver::mayWrite(const QByteArray& path) const {
    if (!options.rules || options.rules->mayWrite(path))
        return true;
    options.rules->refuse(path);
    return false;
}

bool QueryReceiver::chargeCreation(const QByteArray& path) const {
    if (!options.footprint)
        return true;
    // The nodes on the way that are not there yet, then the attribute.
    Node* at = &node;
    int end = 0;
    for (;;) {
        const int slash = path.indexOf('/', end);
        if (slash < 0)
            break;
        Attribute* next = at ? at->attribute(path.mid(end, slash - end)) : nullptr;
        at = next ? Tessel::asNode(AttributeAlias::resolve(next)) : nullptr;
        if (!at && !options.footprint->chargeNode(slash))
            return false;
        end = slash + 1;
    }
    return options.footprint->chargeAttribute(path.size());
}

bool QueryReceiver::add(Query::Reply& reply, uint32_t& bytes, Attribute& attribute,
                        const QByteArray& path, bool withValue) const {
    if (!isShared(path))
        return true;
    Query::Entry entry;
    entry.path = path;
    if (withValue) {
        if (!Query::encodeValue(types, attribute, entry.typeCode, entry.value))
            return true; // no wire form: no session carries it either
    } else if (!(entry.typeCode = typeCodeOf(types, attribute))) {
        return true;
    }
    bytes += Query::entryBytes(entry);
    // The answers of one pass travel in one bundle: together within the limit.
    if (uint64_t(bytes) + replies.pendingBytes() > uint64_t(Limits::MaxQueryReplyBytes))
        return false;
    reply.entries.push_back(std::move(entry));
    return true;
}

void QueryReceiver::refill() {
    const auto now = std::chrono::steady_clock::now();
    const double seconds = std::chrono::duration<double>(now - refilled).count();
    refilled = now;
    visitsLeft = std::min(double(Limits::QueryVisitBurst),
                          visitsLeft + seconds * double(Limits::QueryVisitsPerSecond));
}

bool QueryReceiver::spendVisit() {
    if (visitsLeft < 1.0) {
        refill();
        if (visitsLeft < 1.0)
            return false;
    }
    visitsLeft -= 1.0;
    return true;
}

bool QueryReceiver::matchPaid(const PathPattern& pattern, const QByteArray& path, bool& matched) {
    constexpr double StepsPerVisit = double(Limits::QueryMatchStepsPerVisit);
    // Refilled only when a path's worst case might not fit: most matches of a long list
    // then cost no clock reading.
    if (visitsLeft * StepsPerVisit < double(path.size()) * double(pattern.states()))
        refill();
    const int64_t allowed = int64_t(visitsLeft * StepsPerVisit);
    int64_t steps = allowed;
    matched = pattern.matches(path, &steps);
    if (steps < 0) {
        visitsLeft = 0.0;
        return false;
    }
    visitsLeft -= double(allowed - steps) / StepsPerVisit;
    return true;
}

bool QueryReceiver::walk(Node& under, const QByteArray& prefix,
                         const std::function<bool(Attribute&, const QByteArray&)>& visit) {
    for (Attribute* child : under.children()) {
        if (!spendVisit())
            return false;
        Attribute* resolved = AttributeAlias::resolve(child);
        if (!resolved)
            continue;
        const QByteArray path = childPath(prefix, child->name());
        if (Node* inner = Tessel::asNode(resolved)) {
            if (!walk(*inner, path, visit))
                return false;
        } else if (!visit(*resolved, path)) {
            return false;
        }
    }
    return true;
}

bool QueryReceiver::addUnder(Query::Reply& reply, uint32_t& bytes, Node& under,
                             const QByteArray& prefix, bool withValue, const PathPattern* pattern) {
    return walk(under, prefix, [&](Attribute& attribute, const QByteArray& path) {
        bool matched = true;
        if (pattern && !matchPaid(*pattern, path, matched))
            return false;
        return !matched || add(reply, bytes, attribute, path, withValue);
    });
}

Query::Reply QueryReceiver::read(BundleReader& reader) {
    std::vector<QByteArray> paths;
    if (!readPaths(reader, paths))
        return failed(Query::Invalid, uint32_t(-1));
    const uint32_t count = uint32_t(paths.size());
    Query::Reply reply;
    uint32_t bytes = 0;
    for (uint32_t i = 0; i < count; ++i) {
        const QByteArray& path = paths[i];
        if (!isWellFormed(path))
            return failed(Query::Invalid, i);
        const Place place = locate(node, path);
        bool fits = true;
        if (place.blocker)
            fits = add(reply, bytes, *place.blocker, place.blockerPath, true);
        else if (Node* inner = place.found ? Tessel::asNode(place.found) : nullptr)
            fits = addUnder(reply, bytes, *inner, path, true, nullptr);
        else if (place.found)
            fits = add(reply, bytes, *place.found, path, true);
        if (!fits)
            return failed(Query::TooLarge, i);
    }
    return reply;
}

Query::Reply QueryReceiver::list(BundleReader& reader) {
    QByteArray pattern;
    reader.readString(pattern, uint32_t(Limits::MaxPeerNameBytes));
    const PathPattern matcher(pattern);
    if (matcher.wildcards() > MaxPatternWildcards)
        return failed(Query::Invalid, 0);
    // Walk only under the names before the first wildcard.
    QByteArray prefix;
    for (const QByteArray& name : pattern.split('/')) {
        if (name.contains('*') || pattern.isEmpty())
            break;
        prefix = childPath(prefix, name);
    }
    if (prefix == pattern)
        prefix = prefix.left(std::max(0, prefix.lastIndexOf('/')));
    Query::Reply reply;
    uint32_t bytes = 0;
    if (!isWellFormed(prefix))
        return reply;
    const Place place = locate(node, prefix);
    Node* under = place.found ? Tessel::asNode(place.found) : nullptr;
    if (under &&
        !addUnder(reply, bytes, *under, prefix, false, pattern.isEmpty() ? nullptr : &matcher))
        return failed(Query::TooLarge, 0);
    return reply;
}

Query::Reply QueryReceiver::write(BundleReader& reader) {
    uint32_t count = 0;
    if (!readCount(reader, count))
        return failed(Query::Invalid, uint32_t(-1));
    std::vector<Query::Entry> entries;
    for (uint32_t i = 0; i < count; ++i)
        entries.push_back(Query::readEntry(reader));

    // Everything is checked before anything changes: a request is applied whole or not.
    struct Creation {
        QByteArray path;
        std::unique_ptr<Attribute> attribute; // holds the value already
    };
    std::vector<std::pair<Attribute*, uint32_t>> assignments; // attribute, entry index
    std::vector<Creation> creations;
    // The paths created so far, and every node path on their way: a later creation
    // must be neither, nor run through a created value.
    QSet<QByteArray> created;
    QSet<QByteArray> createdNodes;
    QSet<QByteArray> written; // each path once: a second value for it would be a race
    for (uint32_t i = 0; i < count; ++i) {
        const Query::Entry& entry = entries[i];
        const QByteArray& path = entry.path;
        if (path.isEmpty() || !isWellFormed(path) || !isShared(path) ||
            path.split('/').contains("@type") || written.contains(path))
            return failed(Query::Invalid, i);
        written.insert(path);
        if (!mayWrite(path))
            return failed(Query::Refused, i);
        const Place place = locate(node, path);
        if (place.dangling)
            return failed(Query::Invalid, i);
        Query::Reply clash = failed(Query::PathClash, i);
        if (place.blocker) {
            // What the client cannot see does not stand in its way: it is not there for it.
            if (!isCarried(*place.blocker, place.blockerPath))
                return failed(Query::Invalid, i);
            clash.entries.push_back({place.blockerPath, typeCodeOf(types, *place.blocker), {}});
            return clash;
        }
        if (place.found && Tessel::asNode(place.found)) {
            clash.entries.push_back({path, 0, {}});
            return clash;
        }
        // The bytes must be one whole value of the type, written as this side writes it
        // (padding, text, flags): tried on a fresh attribute and written back.
        std::unique_ptr<Attribute> fresh(types.createAttribute(entry.typeCode));
        uint32_t freshCode = 0;
        QByteArray canonical;
        if (!fresh || !Query::decodeValue(types, entry.typeCode, entry.value, *fresh) ||
            !Query::encodeValue(types, *fresh, freshCode, canonical) || canonical != entry.value)
            return failed(Query::Invalid, i);
        if (place.found) {
            const uint32_t held = typeCodeOf(types, *place.found);
            if (held != entry.typeCode) {
                Query::Reply mismatch = failed(Query::TypeMismatch, i);
                mismatch.entries.push_back({path, held, {}});
                return mismatch;
            }
            // A value held above the layer received values take would hide the write.
            for (int layer = Attribute::LayerRemote + 1; layer < Attribute::LayerCount; ++layer)
                if (place.found->isValueDefinedOnLayer(Attribute::Layer(layer)))
                    return failed(Query::Refused, i);
            assignments.emplace_back(place.found, i);
            continue;
        }
        if (!options.createMissing)
            return failed(Query::NotCreated, i);
        if (created.contains(path) || createdNodes.contains(path)) {
            clash.entries.push_back({path, created.contains(path) ? entry.typeCode : 0, {}});
            return clash;
        }
        for (int slash = path.indexOf('/'); slash >= 0; slash = path.indexOf('/', slash + 1)) {
            const QByteArray on = path.left(slash);
            if (created.contains(on)) {
                clash.entries.push_back({on, entry.typeCode, {}});
                return clash;
            }
        }
        if (!chargeCreation(path))
            return failed(Query::NotCreated, i);
        for (int slash = path.indexOf('/'); slash >= 0; slash = path.indexOf('/', slash + 1))
            createdNodes.insert(path.left(slash));
        created.insert(path);
        creations.push_back({path, std::move(fresh)});
    }

    for (const auto& assignment : assignments) {
        const Query::Entry& entry = entries[assignment.second];
        Query::decodeValue(types, entry.typeCode, entry.value, *assignment.first);
    }
    for (Creation& creation : creations)
        if (node.addDeepAttribute(creation.path, creation.attribute.get()))
            creation.attribute.release(); // its node owns it now
    return Query::Reply();
}

Query::Reply QueryReceiver::remove(BundleReader& reader) {
    std::vector<QByteArray> paths;
    if (!readPaths(reader, paths))
        return failed(Query::Invalid, uint32_t(-1));
    const uint32_t count = uint32_t(paths.size());
    if (!options.mayRemove)
        return failed(Query::Refused, uint32_t(-1));
    QSet<QByteArray> checked;
    for (uint32_t i = 0; i < count; ++i) {
        const QByteArray& path = paths[i];
        if (path.isEmpty() || !isWellFormed(path))
            return failed(Query::Invalid, i);
        if (checked.contains(path))
            continue;
        checked.insert(path);
        const Place place = locate(node, path);
        // What no session shows the client is not there for it.
        Node* inner = place.found ? Tessel::asNode(place.found) : nullptr;
        if (!place.listed || (!inner && !isCarried(*place.found, path)))
            return failed(Query::NotFound, i);
        // The rules name attribute paths: a node may go when everything under it may, an
        // empty one when the rules name the node itself.
        bool allowed = inner ? true : mayWrite(path);
        if (inner && options.rules) {
            bool any = false;
            const bool whole = walk(*inner, path, [&](Attribute&, const QByteArray& under) {
                any = true;
                allowed = mayWrite(under);
                return allowed;
            });
            if (!whole && allowed)
                return failed(Query::TooLarge, i);
            if (!any)
                allowed = mayWrite(path);
        }
        if (!allowed)
            return failed(Query::Refused, i);
    }
    // Looked up again: an earlier path may have taken a later one with it.
    for (const QByteArray& path : paths) {
        const Place place = locate(node, path);
        if (place.listed && place.parent)
            place.parent->deleteAttribute(place.listed);
    }
    return Query::Reply();
}

} // namespace Dovel
