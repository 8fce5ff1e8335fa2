// Appending items to a bundle: BundleWriterCore writes into a BundleCore that it does
// not own (the bundle must outlive the writer); BundleWriter is the form senders use.
// Every append starts on a 4-byte boundary as long as every earlier item was written
// through these operations. One thread at a time.
#pragma once

#include "Dovel/bundle/Bundle.h"

#include "Basalt/ByteGrowth.h"

#include <QString>

#include <cstdint>
#include <cstring>

namespace Dovel {

class BundleWriterCore {
public:
    explicit BundleWriterCore(BundleCore& bundle) : target(&bundle) {}

    BundleCore& bundle() const { return *target; }

    // Appends n bytes and zero padding up to align4(n); n = 0 appends nothing. `data`
    // must not point into this bundle's packet.
    void writeData(const void* data, uint32_t n) {
        if (n == 0)
            return;
        const uint32_t padded = Bundle::align4(n);
        char* at = extend(padded);
        std::memcpy(at, data, n);
        zeroPadding(at, n);
    }
    // Overwrites n bytes at `pos` inside the packet; never grows it, never pads. Throws
    // std::out_of_range when pos + n passes the packet size.
    void writeDataAt(uint32_t pos, const void* data, uint32_t n);
    // The packet size: where the next item goes.
    uint32_t pos() const { return target->size(); }
    // Drops what was written from `size` on.
    void cutBack(uint32_t size) { target->mutablePacket().resize(int(size)); }
    // Empties the packet, header included.
    void rewind() { target->mutablePacket().resize(0); }

    // Typed items. Words are little-endian; a 64-bit value is 8 bytes.
    void writeUInt32(uint32_t v) { std::memcpy(extend(4), &v, 4); }
    // Several words at once: an entry's fixed fields cost one growth of the packet.
    template <std::size_t N> void writeUInt32s(const uint32_t (&words)[N]) {
        std::memcpy(extend(uint32_t(4 * N)), words, 4 * N);
    }
    void writeInt32(int32_t v) { writeUInt32(uint32_t(v)); }
    void writeUInt64(uint64_t v) { std::memcpy(extend(8), &v, 8); }
    void writeInt64(int64_t v) { writeUInt64(uint64_t(v)); }
    void writeFloat(float v) { std::memcpy(extend(4), &v, 4); }
    void writeDouble(double v) { std::memcpy(extend(8), &v, 8); }
    // A data block of sizeof(T) bytes, padded to 4. T must be trivially copyable.
    template <typename T> void writeValue(const T& v) {
        writeData(static_cast<const void*>(&v), uint32_t(sizeof(T)));
    }
    // A u32 byte count, then the bytes, padded to 4.
    void writeBytes(const QByteArray& bytes) {
        const uint32_t n = uint32_t(bytes.size());
        char* at = extend(4 + Bundle::align4(n));
        std::memcpy(at, &n, 4);
        std::memcpy(at + 4, bytes.constData(), n);
        zeroPadding(at + 4, n);
    }
    // The word `word`, then as writeBytes the bytes that `append(packet)` adds to the
    // packet, without a copy of their own. When it returns false (having added nothing)
    // nothing is written.
    template <typename Append> bool writeWordAndBytesFrom(uint32_t word, Append append) {
        const uint32_t start = pos();
        const uint32_t words[2] = {word, 0};
        writeUInt32s(words);
        QByteArray& bytes = target->mutablePacket();
        if (!append(bytes)) {
            cutBack(start);
            return false;
        }
        const uint32_t n = pos() - start - 8;
        const uint32_t padded = Bundle::align4(n);
        if (padded != n)
            Basalt::growBy(bytes, int(padded - n));
        char* at = bytes.data() + start + 4;
        std::memcpy(at, &n, 4);
        zeroPadding(at + 4, n);
        return true;
    }
    // The UTF-8 form of `text` as writeBytes does; text in ASCII goes straight in.
    void writeString(const QString& text) {
        const QChar* const units = text.constData();
        const uint32_t n = uint32_t(text.size());
        for (uint32_t i = 0; i < n; ++i)
            if (units[i].unicode() >= 0x80) {
                writeBytes(text.toUtf8());
                return;
            }
        char* at = extend(4 + Bundle::align4(n));
        std::memcpy(at, &n, 4);
        for (uint32_t i = 0; i < n; ++i)
            at[4 + i] = char(units[i].unicode());
        zeroPadding(at + 4, n);
    }

    // A length-prefixed section: beginSection() appends a placeholder word and returns
    // its position; endSection(start) stores there the byte count written after it.
    uint32_t beginSection() {
        const uint32_t start = pos();
        writeUInt32(0);
        return start;
    }
    void endSection(uint32_t start) {
        const uint32_t length = pos() - start - 4;
        writeDataAt(start, &length, 4);
    }

private:
    // Zeroes the padding after the `n` bytes at `data`, up to align4(n).
    static void zeroPadding(char* data, uint32_t n) {
        for (uint32_t i = n; i < Bundle::align4(n); ++i)
            data[i] = 0;
    }
    // Grows the packet by `n` bytes and returns where they start, for the caller to fill.
    char* extend(uint32_t n) { return Basalt::growBy(target->mutablePacket(), int(n)); }

    BundleCore* target; // not owned
};

class BundleWriter : public BundleWriterCore {
public:
    explicit BundleWriter(BundleCore& bundle) : BundleWriterCore(bundle) {}
};

} // namespace Dovel
