// The query module's wire: what a light client ("Dovel.Query") asks a tree server and
// what the server answers ("Dovel.QueryReply"), for a tool that reads or changes a few
// paths of a large tree without taking a copy of all of it. Both are Dovel's own
// modules, bound with "load-module" like the others; a server without them answers
// "Module not found". docs/query-module.md gives the bytes.
//
// Requests, back to back in a "Dovel.Query" bundle: u32 id, u32 operation, then
//   Read:   u32 count, count paths (strings)
//   List:   the pattern (string; `*` one name, `**` any depth)
//   Write:  u32 count, count entries
//   Remove: u32 count, count paths
// Replies, back to back in a "Dovel.QueryReply" bundle: u32 id, u32 status, u32 index
// (the request item the status is about), u32 count, count entries. An entry is a path
// (string), a u32 type code and the value's bytes (u32 count, bytes as the type code's
// serializer writes them); List entries carry no value bytes.
//
// Thread contract: free functions over values; the attribute helpers run on the thread
// that owns the attribute.
#pragma once

#include "Dovel/bundle/BundleReader.h"
#include "Dovel/bundle/BundleWriter.h"

#include <QByteArray>

#include <cstdint>
#include <vector>

namespace Tessel {
class Attribute;
}

namespace Dovel {

class TypeRegistry;

namespace Query {

// The suffix of a light client's version line ("Heliotrope 2.6.1-dovel-query"): a server
// that knows it starts a query session for the client instead of announcing its tree
// (BundleControllerParams::querySession). Any other server takes the client as an
// ordinary one and answers "Module not found" when it asks for "Dovel.Query".
constexpr char ClientSuffix[] = "dovel-query";

enum Operation : uint32_t { Read = 1, List = 2, Write = 3, Remove = 4 };

enum Status : uint32_t {
    Ok = 0,
    NotFound = 1,     // Remove: no attribute or node at the path
    Refused = 2,      // the server's write rules keep the path from this client
    TypeMismatch = 3, // Write: the attribute is there with another type (the entry says which)
    PathClash = 4,    // Write: a value stands where a node would go, or a node where a value
                      // would (the entry names it; type code 0 for a node)
    NotCreated = 5,   // Write: the path is new and the server creates nothing
    Invalid = 6,      // a malformed, too deep or local ("id") path, or a value that does not
                      // decode as its type
    TooLarge = 7,     // the answer would exceed Limits::MaxQueryReplyBytes
    Unknown = 8,      // an operation this server does not know
};

struct Entry {
    QByteArray path;
    uint32_t typeCode = 0;
    QByteArray value; // as the type code's serializer writes it; empty in List answers
};

struct Reply {
    uint32_t id = 0;
    Status status = Ok;
    uint32_t index = 0;
    std::vector<Entry> entries;
};

void writeEntry(BundleWriterCore& writer, const Entry& entry);
// Path and value lengths are checked against the limits a peer may push us to.
Entry readEntry(BundleReaderCore& reader);
void writeReply(BundleWriterCore& writer, const Reply& reply);
Reply readReply(BundleReaderCore& reader);
// The bytes an entry takes on the wire (for the reply limit).
uint32_t entryBytes(const Entry& entry);

// The value of `attribute` (its current value, aliases followed) as an entry's bytes;
// false when no serializer takes its class.
bool encodeValue(const TypeRegistry& types, Tessel::Attribute& attribute, uint32_t& typeCode,
                 QByteArray& value);
// Writes `value` (bytes of `typeCode`) into `attribute` at the layer received values
// take. False when the code does not fit the attribute, or the bytes are not exactly one
// value of it (then the attribute may hold part of them: decode into a fresh one first).
bool decodeValue(const TypeRegistry& types, uint32_t typeCode, const QByteArray& value,
                 Tessel::Attribute& attribute);

} // namespace Query
} // namespace Dovel
