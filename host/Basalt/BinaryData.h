// A growable byte buffer of tagged items with a read position. A value type: copies
// own their bytes; one object is used by one thread at a time.
//
// Byte layout (it crosses the wire inside event payloads and line-protocol maps).
// Every item is a little-endian u32 type tag followed by the item's bytes, with no
// padding between items:
//
//   tag  item          bytes after the tag
//   1    int32         4   (so an int32 item is exactly 8 bytes)
//   2    int64         8
//   3    float32       4   (IEEE 754)
//   4    float64       8
//   5    string        u32 byte count N, then N bytes (UTF-8 for text; no terminator)
//   6    blob          u32 byte count N, then N bytes
//   7    time stamp    8   (TimeStamp::value(), microseconds)
//   8    vector2 f32   8   (x, y)        9   vector2 i32   8
//   10   vector3 f32   12  (x, y, z)     11  vector3 i32   12
//   12   vector4 f32   16  (x, y, z, w)  13  vector4 i32   16
//
// A reader whose tag does not match, or whose item runs past the end, fails: it sets
// *ok to false (when ok is given), returns a zero value and leaves the position where
// it was. Counts are checked against the bytes present before anything is allocated.
#pragma once

#include "Basalt/TimeStamp.h"
#include "Quant/Vector.h"

#include <QByteArray>
#include <QString>

#include <cstdint>

namespace Basalt {

class BinaryData {
public:
    enum Tag : uint32_t {
        TagInt32 = 1,
        TagInt64 = 2,
        TagFloat32 = 3,
        TagFloat64 = 4,
        TagString = 5,
        TagBlob = 6,
        TagTimeStamp = 7,
        TagVector2Float32 = 8,
        TagVector2Int32 = 9,
        TagVector3Float32 = 10,
        TagVector3Int32 = 11,
        TagVector4Float32 = 12,
        TagVector4Int32 = 13,
    };

    BinaryData();
    BinaryData(const BinaryData& other); // owning copy of the bytes, same position
    BinaryData& operator=(const BinaryData& other);
    ~BinaryData();
    // Wraps existing encoded bytes (shared, not copied); position 0.
    static BinaryData fromByteArray(const QByteArray& bytes);

    // Reads `size` bytes of external memory in place, without copying; the memory must
    // outlive this object or the next write, which first copies it. Position 0.
    void linkTo(void* data, int size);
    // Lays out a string item of `bytes` in `out` and returns its size, or 0 when it needs
    // more than `capacity` bytes: with linkTo, a payload without an allocation.
    static int encodeString(const QByteArray& bytes, char* out, int capacity);
    // Reserves room for `bytes` more bytes (ignored beyond what a buffer can hold).
    void ensure(uint64_t bytes);
    // Appends the other buffer's bytes (all of them, whatever its position).
    void append(const BinaryData& other);

    // Writers append at the end.
    void write(const QByteArray& bytes); // a string item holding the bytes
    void writeBlob(const void* data, int size);
    void writeInt32(int value);
    void writeInt64(int64_t value);
    void writeFloat32(float value);
    void writeFloat64(double value);
    void writeString(const QString& text);
    void writeTimeStamp(const TimeStamp& stamp);
    void writeVector2Float32(const Quant::Vector2f& v);
    void writeVector2Int32(const Quant::Vector2i& v);
    void writeVector3Float32(const Quant::Vector3f& v);
    void writeVector3Int32(const Quant::Vector3i& v);
    void writeVector4Float32(const Quant::Vector4f& v);
    void writeVector4Int32(const Quant::Vector4i& v);

    // Readers consume one item at the position.
    int32_t readInt32(bool* ok = nullptr);
    int64_t readInt64(bool* ok = nullptr);
    float readFloat32(bool* ok = nullptr);
    double readFloat64(bool* ok = nullptr);
    TimeStamp readTimeStamp(bool* ok = nullptr);
    Quant::Vector2f readVector2Float32(bool* ok = nullptr);
    Quant::Vector2i readVector2Int32(bool* ok = nullptr);
    Quant::Vector3f readVector3Float32(bool* ok = nullptr);
    Quant::Vector3i readVector3Int32(bool* ok = nullptr);
    Quant::Vector4f readVector4Float32(bool* ok = nullptr);
    Quant::Vector4i readVector4Int32(bool* ok = nullptr);
    bool readString(QByteArray& out);
    bool readString(QString& out);
    // Reads a string item as a view of this buffer's bytes, copying nothing: valid until
    // this object is written to or destroyed.
    bool viewString(QByteArray& out);
    // Reads a blob item of at most `size` bytes into `data`; fails (nothing copied)
    // when the item is longer. lastBlobSize() then tells how many bytes were copied
    // (0 after a failure).
    bool readBlob(void* data, int size);
    bool readBlob(QByteArray& out);
    int lastBlobSize() const { return lastBlob; }
    // Tag of the item at the position, 0 at the end.
    uint32_t peekTag() const;

    int size() const { return length; }
    const char* constData() const { return base; }
    QByteArray toByteArray() const { return QByteArray(base, length); }
    int position() const { return pos; }
    bool seek(int position);
    void rewind() { pos = 0; }
    bool atEnd() const { return pos >= length; }
    int remaining() const { return length - pos; }
    // Drops every byte and rewinds.
    void clear();

    // Same bytes; positions are not compared.
    bool operator==(const BinaryData& other) const;
    bool operator!=(const BinaryData& other) const { return !(*this == other); }

private:
    void detach();
    void appendRaw(const void* data, int size);
    void appendTag(uint32_t tag);
    bool take(uint32_t tag, void* out, int size, bool* ok);
    bool takeCounted(uint32_t tag, QByteArray& out);
    void sync();

    QByteArray owned;
    const char* base = nullptr;
    int length = 0;
    int pos = 0;
    int lastBlob = 0;
    bool linked = false;
};

} // namespace Basalt
