#include "Dovel/sync/QueryWire.h"

#include "Dovel/Limits.h"
#include "Dovel/bundle/BundleCore.h"
#include "Dovel/types/TypeRegistry.h"

#include <stdexcept>

namespace Dovel {
namespace Query {

namespace {
uint32_t padded(uint32_t n) {
    return (n + 3u) & ~3u;
}
} // namespace

void writeEntry(BundleWriterCore& writer, const Entry& entry) {
    writer.writeBytes(entry.path);
    writer.writeUInt32(entry.typeCode);
    writer.writeBytes(entry.value);
}

Entry readEntry(BundleReaderCore& reader) {
    Entry entry;
    reader.readString(entry.path, uint32_t(Limits::MaxPeerNameBytes));
    entry.typeCode = reader.readUInt32();
    reader.readBinary(entry.value, uint32_t(Limits::MaxSentValueBytes));
    return entry;
}

uint32_t entryBytes(const Entry& entry) {
    return 12 + padded(uint32_t(entry.path.size())) + padded(uint32_t(entry.value.size()));
}

void writeReply(BundleWriterCore& writer, const Reply& reply) {
    writer.writeUInt32(reply.id);
    writer.writeUInt32(reply.status);
    writer.writeUInt32(reply.index);
    writer.writeUInt32(uint32_t(reply.entries.size()));
    for (const Entry& entry : reply.entries)
        writeEntry(writer, entry);
}

Reply readReply(BundleReaderCore& reader) {
    Reply reply;
    reply.id = reader.readUInt32();
    reply.status = Status(reader.readUInt32());
    reply.index = reader.readUInt32();
    const uint32_t count = reader.readUInt32();
    // Each entry takes at least 12 bytes: a huge count ends at the bundle's end, and
    // the vector grows only with entries that came.
    for (uint32_t i = 0; i < count; ++i)
        reply.entries.push_back(readEntry(reader));
    return reply;
}

bool encodeValue(const TypeRegistry& types, Tessel::Attribute& attribute, uint32_t& typeCode,
                 QByteArray& value) {
    uint32_t size = 0;
    const Serializer serialize = types.createSerializer(&attribute, typeCode, size);
    if (!serialize)
        return false;
    BundleCore scratch;
    BundleWriterCore writer(scratch);
    serialize(writer);
    value = scratch.packet();
    return true;
}

bool decodeValue(const TypeRegistry& types, uint32_t typeCode, const QByteArray& value,
                 Tessel::Attribute& attribute) {
    const Deserializer deserialize = types.createDeserializer(typeCode, &attribute);
    if (!deserialize)
        return false;
    const BundleCore scratch(value);
    BundleReaderCore reader(scratch, 0);
    try {
        deserialize(reader);
    } catch (const std::exception&) {
        return false;
    }
    return reader.pos() == uint32_t(value.size());
}

} // namespace Query
} // namespace Dovel
