// The bytes of one value inside a bundle, per value family, independent of where the
// value lives: the attribute codecs and the variant codecs both write and read through
// these, so an attribute and a variant of the same type code give the same bytes.
// Each encoding is a stateless struct with static write(writer, value) and
// read(reader) (or readInto(reader, out), which reuses out's storage). Reads never
// allocate from a count before the bundle is known to hold the bytes it announces.
// Stateless; thread-safe.
#pragma once

#include "Dovel/bundle/BundleReader.h"
#include "Dovel/bundle/BundleWriter.h"

#include "Basalt/MemGrid8u.h"
#include "Basalt/TimeStamp.h"

#include <QString>

#include <climits>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace Dovel {

// A fixed-size value copied as it lies in memory, padded to 4 bytes.
template <typename T> struct RawEncoding {
    static_assert(std::is_trivially_copyable<T>::value, "raw values are copied as bytes");
    enum : uint32_t { Size = sizeof(T) };
    static void write(BundleWriterCore& writer, const T& value) {
        writer.writeData(static_cast<const void*>(&value), Size);
    }
    static T read(BundleReaderCore& reader) {
        T value;
        std::memcpy(static_cast<void*>(&value), reader.read(Size), Size);
        return value;
    }
};

// One byte, then three zero bytes. Any non-zero byte reads as true: a bool object must
// not be given another bit pattern.
template <> struct RawEncoding<bool> {
    enum : uint32_t { Size = 1 };
    static void write(BundleWriterCore& writer, bool value) {
        const uint8_t byte = value ? 1 : 0;
        writer.writeData(&byte, 1);
    }
    static bool read(BundleReaderCore& reader) { return *reader.read(1) != 0; }
};

// The 64-bit microsecond count.
template <> struct RawEncoding<Basalt::TimeStamp> {
    enum : uint32_t { Size = 8 };
    static void write(BundleWriterCore& writer, const Basalt::TimeStamp& value) {
        writer.writeInt64(value.value());
    }
    static Basalt::TimeStamp read(BundleReaderCore& reader) {
        return Basalt::TimeStamp(reader.readInt64());
    }
};

// A two-component value T made of two 4-byte components C.
template <typename T, typename C> struct PairEncoding {
    static_assert(sizeof(C) == 4, "pair components are 4 bytes");
    enum : uint32_t { Size = 8 };
    static void write(BundleWriterCore& writer, C first, C second) {
        const C pair[2] = {first, second};
        writer.writeData(pair, Size);
    }
    static void readPair(BundleReaderCore& reader, C& first, C& second) {
        C pair[2];
        std::memcpy(pair, reader.read(Size), Size);
        first = pair[0];
        second = pair[1];
    }
};

// A string: u32 UTF-8 byte count, the bytes, zero padding.
struct StringEncoding {
    static void write(BundleWriterCore& writer, const QString& value) { writer.writeString(value); }
    static QString read(BundleReaderCore& reader) { return reader.readString(); }
};

// A list of strings: u32 byte count of the whole list, then each string as above. The
// reader takes strings while its position is before the announced end; a last string
// that runs past that end is still read whole. List is QStringList or
// std::vector<QString>. A value cut short throws and leaves `out` as it was.
template <typename List> struct StringListEncoding {
    static void write(BundleWriterCore& writer, const List& list) {
        const uint32_t start = writer.beginSection();
        for (const QString& item : list)
            writer.writeString(item);
        writer.endSection(start);
    }
    static void readInto(BundleReaderCore& reader, List& out) {
        List decoded;
        const uint32_t total = reader.readUInt32();
        const uint64_t end = uint64_t(reader.pos()) + total;
        // Each string takes at least one word, so the loop is bounded by the bundle.
        while (reader.pos() < end)
            decoded.push_back(reader.readString());
        out.swap(decoded);
    }
    static List read(BundleReaderCore& reader) {
        List out;
        readInto(reader, out);
        return out;
    }
};

// Containers of fixed-size elements (and spline points): u32 byte count (elements x element size),
// then the elements. Vector is std::vector<E> or QVector<E>. A count that is not a multiple of the
// element size reads the whole elements only; the rest belongs to the next value.
template <typename Vector> struct VectorEncoding {
    using Element = typename Vector::value_type;
    static_assert(sizeof(Element) == 4 || sizeof(Element) == 8, "4- or 8-byte elements");
    static_assert(std::is_trivially_copyable<Element>::value, "elements are copied as bytes");
    enum : uint32_t { ElementSize = sizeof(Element), Shift = sizeof(Element) == 4 ? 2 : 3 };

    static void write(BundleWriterCore& writer, const Vector& vector) {
        const uint32_t bytes = uint32_t(vector.size()) * ElementSize;
        writer.writeUInt32(bytes);
        writer.writeData(vector.data(), bytes);
    }
    static void readInto(BundleReaderCore& reader, Vector& out) {
        const uint32_t count = reader.readUInt32() >> Shift;
        const uint32_t bytes = count * ElementSize;
        const char* at = reader.read(bytes); // checked before anything is allocated
        out.resize(int(count));
        if (bytes != 0)
            std::memcpy(static_cast<void*>(out.data()), at, bytes);
    }
    static Vector read(BundleReaderCore& reader) {
        Vector out;
        readInto(reader, out);
        return out;
    }
};

// An 8-bit grid: u32 L = width x height + 4, u32 width, then the cells row by row, padded.
struct GridEncoding {
    static void write(BundleWriterCore& writer, const Basalt::MemGrid8u& grid);
    // Calls `apply(cells, width, height)` with the cells still inside the bundle, so
    // that the grid copies them once. Throws std::out_of_range when L < 4 or the bundle
    // is short.
    template <typename Apply> static void read(BundleReaderCore& reader, Apply&& apply) {
        const uint32_t length = reader.readUInt32();
        if (length < 4)
            throwNotEnoughData();
        uint32_t width = reader.readUInt32();
        const uint32_t cellBytes = length - 4;
        // Taken before anything depends on the count: it bounds width x height by what
        // the bundle really holds.
        const char* cells = cellBytes != 0 ? reader.read(cellBytes) : nullptr;
        const uint32_t height = width != 0 ? cellBytes / width : 0;
        // A packet holds less than 2^31 bytes, so such a width has height 0.
        if (width > uint32_t(INT_MAX))
            width = 0;
        apply(reinterpret_cast<const uint8_t*>(cells), int(width), int(height));
    }
    static Basalt::MemGrid8u read(BundleReaderCore& reader);

    [[noreturn]] static void throwNotEnoughData();
};

} // namespace Dovel
