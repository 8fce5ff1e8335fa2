#include "Basalt/BinaryData.h"

#include <QtEndian>

#include <climits>
#include <cstring>

namespace Basalt {

namespace {

uint32_t loadU32(const char* p) {
    return qFromLittleEndian<quint32>(p);
}

void storeU32(char* p, uint32_t v) {
    qToLittleEndian<quint32>(v, p);
}

// Fixed-size payloads as little-endian words of 4 or 8 bytes.
template <typename T> void encodeWords(const T* words, int count, char* out) {
    for (int i = 0; i < count; ++i) {
        if (sizeof(T) == 4) {
            uint32_t raw;
            std::memcpy(&raw, &words[i], 4);
            qToLittleEndian<quint32>(raw, out + 4 * i);
        } else {
            uint64_t raw;
            std::memcpy(&raw, &words[i], 8);
            qToLittleEndian<quint64>(raw, out + 8 * i);
        }
    }
}

template <typename T> void decodeWords(const char* in, int count, T* words) {
    for (int i = 0; i < count; ++i) {
        if (sizeof(T) == 4) {
            const uint32_t raw = qFromLittleEndian<quint32>(in + 4 * i);
            std::memcpy(&words[i], &raw, 4);
        } else {
            const uint64_t raw = qFromLittleEndian<quint64>(in + 8 * i);
            std::memcpy(&words[i], &raw, 8);
        }
    }
}

} // namespace

BinaryData::BinaryData() {
    sync();
}

BinaryData::BinaryData(const BinaryData& other) {
    *this = other;
}

BinaryData& BinaryData::operator=(const BinaryData& other) {
    if (this == &other)
        return *this;
    // Linked memory belongs to someone else: a copy takes its own bytes.
    owned = other.linked ? QByteArray(other.base, other.length) : other.owned;
    sync();
    pos = other.pos;
    lastBlob = other.lastBlob;
    return *this;
}

BinaryData::~BinaryData() = default;

BinaryData BinaryData::fromByteArray(const QByteArray& bytes) {
    BinaryData data;
    data.owned = bytes;
    data.sync();
    return data;
}

void BinaryData::sync() {
    base = owned.constData();
    length = owned.size();
    linked = false;
}

void BinaryData::detach() {
    if (linked) {
        owned = QByteArray(base, length);
        sync();
    }
}

void BinaryData::linkTo(void* data, int size) {
    owned.clear();
    base = static_cast<const char*>(data);
    length = (data != nullptr && size > 0) ? size : 0;
    linked = true;
    pos = 0;
    lastBlob = 0;
}

int BinaryData::encodeString(const QByteArray& bytes, char* out, int capacity) {
    if (capacity < 8 || bytes.size() > capacity - 8)
        return 0;
    storeU32(out, TagString);
    storeU32(out + 4, uint32_t(bytes.size()));
    if (!bytes.isEmpty())
        std::memcpy(out + 8, bytes.constData(), size_t(bytes.size()));
    return 8 + bytes.size();
}

void BinaryData::ensure(uint64_t bytes) {
    detach();
    if (bytes > uint64_t(INT_MAX - length))
        return;
    owned.reserve(length + int(bytes));
    sync();
}

void BinaryData::append(const BinaryData& other) {
    if (&other == this) {
        const QByteArray copy(base, length);
        appendRaw(copy.constData(), copy.size());
    } else {
        appendRaw(other.base, other.length);
    }
}

void BinaryData::appendRaw(const void* data, int size) {
    detach();
    if (size <= 0 || size > INT_MAX - length)
        return;
    owned.append(static_cast<const char*>(data), size);
    sync();
}

void BinaryData::appendTag(uint32_t tag) {
    char bytes[4];
    storeU32(bytes, tag);
    appendRaw(bytes, 4);
}

void BinaryData::write(const QByteArray& bytes) {
    appendTag(TagString);
    char count[4];
    storeU32(count, uint32_t(bytes.size()));
    appendRaw(count, 4);
    appendRaw(bytes.constData(), bytes.size());
}

void BinaryData::writeString(const QString& text) {
    write(text.toUtf8());
}

void BinaryData::writeBlob(const void* data, int size) {
    if (data == nullptr || size < 0)
        size = 0;
    appendTag(TagBlob);
    char count[4];
    storeU32(count, uint32_t(size));
    appendRaw(count, 4);
    appendRaw(data, size);
}

namespace {

// One fixed-size item: the tag, then `count` words.
template <typename T> QByteArray fixedItem(uint32_t tag, const T* words, int count) {
    QByteArray item(4 + int(sizeof(T)) * count, '\0');
    storeU32(item.data(), tag);
    encodeWords(words, count, item.data() + 4);
    return item;
}

} // namespace

void BinaryData::writeInt32(int value) {
    const int32_t v = value;
    const QByteArray item = fixedItem(TagInt32, &v, 1);
    appendRaw(item.constData(), item.size());
}

void BinaryData::writeInt64(int64_t value) {
    const QByteArray item = fixedItem(TagInt64, &value, 1);
    appendRaw(item.constData(), item.size());
}

void BinaryData::writeFloat32(float value) {
    const QByteArray item = fixedItem(TagFloat32, &value, 1);
    appendRaw(item.constData(), item.size());
}

void BinaryData::writeFloat64(double value) {
    const QByteArray item = fixedItem(TagFloat64, &value, 1);
    appendRaw(item.constData(), item.size());
}

void BinaryData::writeTimeStamp(const TimeStamp& stamp) {
    const int64_t v = stamp.value();
    const QByteArray item = fixedItem(TagTimeStamp, &v, 1);
    appendRaw(item.constData(), item.size());
}

void BinaryData::writeVector2Float32(const Quant::Vector2f& v) {
    const float w[2] = {v.x, v.y};
    const QByteArray item = fixedItem(TagVector2Float32, w, 2);
    appendRaw(item.constData(), item.size());
}

void BinaryData::writeVector2Int32(const Quant::Vector2i& v) {
    const int32_t w[2] = {v.x, v.y};
    const QByteArray item = fixedItem(TagVector2Int32, w, 2);
    appendRaw(item.constData(), item.size());
}

void BinaryData::writeVector3Float32(const Quant::Vector3f& v) {
    const float w[3] = {v.x, v.y, v.z};
    const QByteArray item = fixedItem(TagVector3Float32, w, 3);
    appendRaw(item.constData(), item.size());
}

void BinaryData::writeVector3Int32(const Quant::Vector3i& v) {
    const int32_t w[3] = {v.x, v.y, v.z};
    const QByteArray item = fixedItem(TagVector3Int32, w, 3);
    appendRaw(item.constData(), item.size());
}

void BinaryData::writeVector4Float32(const Quant::Vector4f& v) {
    const float w[4] = {v.x, v.y, v.z, v.w};
    const QByteArray item = fixedItem(TagVector4Float32, w, 4);
    appendRaw(item.constData(), item.size());
}

void BinaryData::writeVector4Int32(const Quant::Vector4i& v) {
    const int32_t w[4] = {v.x, v.y, v.z, v.w};
    const QByteArray item = fixedItem(TagVector4Int32, w, 4);
    appendRaw(item.constData(), item.size());
}

bool BinaryData::take(uint32_t tag, void* out, int size, bool* ok) {
    const bool fits = remaining() >= 4 && remaining() - 4 >= size;
    if (!fits || loadU32(base + pos) != tag) {
        if (ok != nullptr)
            *ok = false;
        return false;
    }
    if (size > 0)
        std::memcpy(out, base + pos + 4, size_t(size));
    pos += 4 + size;
    if (ok != nullptr)
        *ok = true;
    return true;
}

bool BinaryData::takeCounted(uint32_t tag, QByteArray& out) {
    if (remaining() < 8 || loadU32(base + pos) != tag)
        return false;
    const uint32_t count = loadU32(base + pos + 4);
    // The count comes from the bytes themselves: check it before allocating.
    if (count > uint32_t(remaining() - 8))
        return false;
    out = QByteArray(base + pos + 8, int(count));
    pos += 8 + int(count);
    return true;
}

int32_t BinaryData::readInt32(bool* ok) {
    int32_t w[1] = {0};
    char raw[sizeof w];
    if (take(TagInt32, raw, int(sizeof raw), ok))
        decodeWords(raw, int(sizeof w / sizeof w[0]), w);
    return w[0];
}

int64_t BinaryData::readInt64(bool* ok) {
    int64_t w[1] = {0};
    char raw[sizeof w];
    if (take(TagInt64, raw, int(sizeof raw), ok))
        decodeWords(raw, int(sizeof w / sizeof w[0]), w);
    return w[0];
}

float BinaryData::readFloat32(bool* ok) {
    float w[1] = {0.0f};
    char raw[sizeof w];
    if (take(TagFloat32, raw, int(sizeof raw), ok))
        decodeWords(raw, int(sizeof w / sizeof w[0]), w);
    return w[0];
}

double BinaryData::readFloat64(bool* ok) {
    double w[1] = {0.0};
    char raw[sizeof w];
    if (take(TagFloat64, raw, int(sizeof raw), ok))
        decodeWords(raw, int(sizeof w / sizeof w[0]), w);
    return w[0];
}

TimeStamp BinaryData::readTimeStamp(bool* ok) {
    int64_t w[1] = {0};
    char raw[sizeof w];
    if (take(TagTimeStamp, raw, int(sizeof raw), ok))
        decodeWords(raw, int(sizeof w / sizeof w[0]), w);
    return TimeStamp(w[0]);
}

Quant::Vector2f BinaryData::readVector2Float32(bool* ok) {
    float w[2] = {};
    char raw[sizeof w];
    if (take(TagVector2Float32, raw, int(sizeof raw), ok))
        decodeWords(raw, int(sizeof w / sizeof w[0]), w);
    return Quant::Vector2f(w[0], w[1]);
}

Quant::Vector2i BinaryData::readVector2Int32(bool* ok) {
    int32_t w[2] = {};
    char raw[sizeof w];
    if (take(TagVector2Int32, raw, int(sizeof raw), ok))
        decodeWords(raw, int(sizeof w / sizeof w[0]), w);
    return Quant::Vector2i(w[0], w[1]);
}

Quant::Vector3f BinaryData::readVector3Float32(bool* ok) {
    float w[3] = {};
    char raw[sizeof w];
    if (take(TagVector3Float32, raw, int(sizeof raw), ok))
        decodeWords(raw, int(sizeof w / sizeof w[0]), w);
    return Quant::Vector3f(w[0], w[1], w[2]);
}

Quant::Vector3i BinaryData::readVector3Int32(bool* ok) {
    int32_t w[3] = {};
    char raw[sizeof w];
    if (take(TagVector3Int32, raw, int(sizeof raw), ok))
        decodeWords(raw, int(sizeof w / sizeof w[0]), w);
    return Quant::Vector3i(w[0], w[1], w[2]);
}

Quant::Vector4f BinaryData::readVector4Float32(bool* ok) {
    float w[4] = {};
    char raw[sizeof w];
    if (take(TagVector4Float32, raw, int(sizeof raw), ok))
        decodeWords(raw, int(sizeof w / sizeof w[0]), w);
    return Quant::Vector4f(w[0], w[1], w[2], w[3]);
}

Quant::Vector4i BinaryData::readVector4Int32(bool* ok) {
    int32_t w[4] = {};
    char raw[sizeof w];
    if (take(TagVector4Int32, raw, int(sizeof raw), ok))
        decodeWords(raw, int(sizeof w / sizeof w[0]), w);
    return Quant::Vector4i(w[0], w[1], w[2], w[3]);
}

bool BinaryData::readString(QByteArray& out) {
    return takeCounted(TagString, out);
}

bool BinaryData::viewString(QByteArray& out) {
    if (remaining() < 8 || loadU32(base + pos) != TagString)
        return false;
    const uint32_t count = loadU32(base + pos + 4);
    if (count > uint32_t(remaining() - 8))
        return false;
    out = QByteArray::fromRawData(base + pos + 8, int(count));
    pos += 8 + int(count);
    return true;
}

bool BinaryData::readString(QString& out) {
    QByteArray bytes;
    if (!takeCounted(TagString, bytes))
        return false;
    out = QString::fromUtf8(bytes);
    return true;
}

bool BinaryData::readBlob(void* data, int size) {
    lastBlob = 0;
    if (remaining() < 8 || loadU32(base + pos) != TagBlob)
        return false;
    const uint32_t count = loadU32(base + pos + 4);
    if (count > uint32_t(remaining() - 8) || size < 0 || count > uint32_t(size))
        return false;
    if (count > 0)
        std::memcpy(data, base + pos + 8, count);
    pos += 8 + int(count);
    lastBlob = int(count);
    return true;
}

bool BinaryData::readBlob(QByteArray& out) {
    lastBlob = 0;
    if (!takeCounted(TagBlob, out))
        return false;
    lastBlob = out.size();
    return true;
}

uint32_t BinaryData::peekTag() const {
    return remaining() >= 4 ? loadU32(base + pos) : 0;
}

bool BinaryData::seek(int position) {
    if (position < 0 || position > length)
        return false;
    pos = position;
    return true;
}

void BinaryData::clear() {
    owned.clear();
    sync();
    pos = 0;
    lastBlob = 0;
}

bool BinaryData::operator==(const BinaryData& other) const {
    return length == other.length &&
           (length == 0 || std::memcmp(base, other.base, size_t(length)) == 0);
}

} // namespace Basalt
