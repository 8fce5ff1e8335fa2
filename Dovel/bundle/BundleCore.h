// One packet of the binary session: a 16-byte header of four little-endian u32 words
// (payload size, message type, sequence number, acknowledged) and a 4-byte-aligned
// payload. A thin value over one implicitly shared QByteArray: copies share the bytes
// until one side writes, so bundles move into output vectors and across threads
// without copying. Not thread-safe itself; distinct copies may live on distinct
// threads (the sharing is atomic).
#pragma once

#include <QByteArray>
#include <QtGlobal>

#include <cstdint>
#include <cstring>

// Words are copied to and from packets in host order; a big-endian port must swap.
static_assert(Q_BYTE_ORDER == Q_LITTLE_ENDIAN, "bundle words are little-endian");

namespace Dovel {

class BundleCore {
public:
    enum : uint32_t { HeaderSize = 16 };
    // Header word indices.
    enum HeaderWord : int {
        PayloadSizeWord = 0,
        MessageTypeWord = 1,
        SequenceNumberWord = 2,
        AcknowledgedWord = 3
    };

    // An empty packet (no header either).
    BundleCore() = default;
    // Takes the bytes as they are; no check is made.
    explicit BundleCore(const QByteArray& packet) : bytes(packet) {}

    const QByteArray& packet() const { return bytes; }
    // For code that fills a packet in place (writers, socket readers). Writing through
    // it detaches this copy from any other sharing the bytes.
    QByteArray& mutablePacket() { return bytes; }
    uint32_t size() const { return uint32_t(bytes.size()); }

    // Header word `index` (0..3); 0 when the packet is too short to hold it.
    uint32_t headerWord(int index) const {
        const int offset = index * 4;
        if (index < 0 || offset + 4 > bytes.size())
            return 0;
        uint32_t word;
        std::memcpy(&word, bytes.constData() + offset, 4);
        return word;
    }
    // Stores header word `index` (0..3); does nothing when the packet is too short.
    void setHeaderWord(int index, uint32_t word) {
        const int offset = index * 4;
        if (index < 0 || offset + 4 > bytes.size())
            return;
        std::memcpy(bytes.data() + offset, &word, 4);
    }
    // Fills the whole header at once.
    void setHeader(uint32_t payloadSize, uint32_t messageType, uint32_t sequenceNumber,
                   uint32_t acknowledged);

    uint32_t messageType() const { return headerWord(MessageTypeWord); }
    uint32_t sequenceNumber() const { return headerWord(SequenceNumberWord); }

private:
    QByteArray bytes;
};

} // namespace Dovel
