// Reading the items of a bundle: BundleReaderCore is a cursor over a BundleCore that
// it does not own (the bundle must outlive the reader); BundleReader is the form that
// receivers are handed, positioned at the first payload byte. Every item starts on a
// 4-byte boundary, so each read advances by the item's size rounded up to 4. A read
// that would pass the end throws std::out_of_range and leaves the position where it
// was. One thread at a time.
#pragma once

#include "Dovel/bundle/Bundle.h"

#include <QString>

#include <cstdint>
#include <cstring>

namespace Dovel {

class BundleReaderCore {
public:
    // Starts at position 0, the first header byte.
    explicit BundleReaderCore(const BundleCore& bundle) : source(&bundle) {}
    BundleReaderCore(const BundleCore& bundle, uint32_t pos) : source(&bundle), position(pos) {}

    const BundleCore& bundle() const { return *source; }

    // A pointer to the next n bytes; advances by align4(n). Fails only when fewer than n
    // bytes remain: a final item whose padding is missing is accepted, and the position
    // may then stand past the end, where atEnd() is true. read(0) returns the current
    // position and does not move.
    const char* read(uint32_t n) {
        const QByteArray& bytes = source->packet();
        // 64-bit sum: a huge count from a peer must not wrap past the test and index
        // outside the packet.
        if (uint64_t(position) + n > uint64_t(uint32_t(bytes.size())))
            throwPastEnd();
        const char* at = bytes.constData() + position;
        position += Bundle::align4(n);
        return at;
    }

    // A u32 count N, then N bytes into `out`. N is bounded only by the bytes present.
    void read(QByteArray& out) {
        const uint32_t n = readUInt32();
        const char* at = read(n);
        out = QByteArray(at, int(n));
    }
    // A u32 count N (at most maxSize, else std::invalid_argument), then N bytes.
    void readBinary(QByteArray& out, uint32_t maxSize);
    // As readBinary; the bytes must hold no zero byte (std::invalid_argument).
    void readString(QByteArray& out, uint32_t maxSize);
    // readString, decoded as UTF-8.
    void readString(QString& out, uint32_t maxSize);

    // Typed items. Words are little-endian; a 64-bit value is 8 bytes.
    uint32_t readUInt32() {
        uint32_t v;
        std::memcpy(&v, read(4), 4);
        return v;
    }
    int32_t readInt32() { return int32_t(readUInt32()); }
    uint64_t readUInt64() {
        uint64_t v;
        std::memcpy(&v, read(8), 8);
        return v;
    }
    int64_t readInt64() { return int64_t(readUInt64()); }
    float readFloat() {
        float v;
        std::memcpy(&v, read(4), 4);
        return v;
    }
    double readDouble() {
        double v;
        std::memcpy(&v, read(8), 8);
        return v;
    }
    // A data block of sizeof(T) bytes (padded to 4) copied into a T. T must be
    // trivially copyable.
    template <typename T> T readValue() {
        T v;
        std::memcpy(static_cast<void*>(&v), read(uint32_t(sizeof(T))), sizeof(T));
        return v;
    }
    // A u32 count N and N bytes, with no limit but the bytes present.
    QByteArray readBytes() {
        QByteArray out;
        read(out);
        return out;
    }
    // readBytes decoded as UTF-8.
    QString readString() {
        const uint32_t n = readUInt32();
        const char* at = read(n);
        return QString::fromUtf8(at, int(n));
    }

    // True once the position reaches or passes the packet size.
    bool atEnd() const { return int64_t(position) >= int64_t(source->size()); }
    uint32_t pos() const { return position; }

private:
    [[noreturn]] static void throwPastEnd();

    const BundleCore* source; // not owned
    uint32_t position = 0;
};

class BundleReader : public BundleReaderCore {
public:
    // Starts at the first payload byte, the form in which bundles are dispatched.
    explicit BundleReader(const BundleCore& bundle)
        : BundleReaderCore(bundle, BundleCore::HeaderSize) {}
    BundleReader(const BundleCore& bundle, uint32_t pos) : BundleReaderCore(bundle, pos) {}
};

} // namespace Dovel
