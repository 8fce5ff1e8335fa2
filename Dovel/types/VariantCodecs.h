// Codecs for values that travel without an attribute: they take and return a QVariant
// and write the same bytes as the attribute codecs of the same type code. Stateless;
// thread-safe (a serializer throws std::invalid_argument for a variant that Qt cannot
// convert to the code's value type).
#pragma once

#include "Dovel/types/MetaTypes.h"
#include "Dovel/types/ValueEncodings.h"

#include <QVariant>

#include <cstring>
#include <functional>
#include <type_traits>

namespace Dovel {

using VariantSerializer = std::function<void(BundleWriterCore&, const QVariant&)>;
using VariantDeserializer = std::function<QVariant(BundleReaderCore&)>;

namespace Detail {
// Throws "Given QVariant can't be converted to <typeName>".
[[noreturn]] void throwNotConvertible(const char* typeName);
} // namespace Detail

// The value of `variant` as a T: taken directly when it holds a T, else converted; a
// failed conversion gives T(). Throws when Qt cannot convert the type at all;
// `typeName` names T in that message (null: the meta-type name).
template <typename T> T variantToValue(const QVariant& variant, const char* typeName) {
    const int id = metaTypeId<T>();
    if (!variant.canConvert(id))
        Detail::throwNotConvertible(typeName ? typeName : QMetaType::typeName(id));
    if (variant.userType() == id)
        return *static_cast<const T*>(variant.constData());
    QVariant copy(variant);
    if (!copy.convert(id))
        return T();
    return *static_cast<const T*>(copy.constData());
}

// Variant codecs of a value type T whose bytes are given by Encoding (an encoding with
// static write(writer, T) and read(reader) -> T).
template <typename T, typename Encoding> struct VariantCodec {
    static VariantSerializer serializer(const char* typeName = nullptr) {
        return [typeName](BundleWriterCore& writer, const QVariant& variant) {
            Encoding::write(writer, variantToValue<T>(variant, typeName));
        };
    }
    static VariantDeserializer deserializer() {
        return [](BundleReaderCore& reader) { return toVariant<T>(Encoding::read(reader)); };
    }
};

// Pairs travel as their two components.
template <typename T, typename C> struct PairValueEncoding {
    static_assert(sizeof(T) == 2 * sizeof(C) && std::is_standard_layout<T>::value,
                  "a pair is its two components");
    static void write(BundleWriterCore& writer, const T& value);
    static T read(BundleReaderCore& reader) {
        C first, second;
        PairEncoding<T, C>::readPair(reader, first, second);
        return T(first, second);
    }
};
template <typename T, typename C>
void PairValueEncoding<T, C>::write(BundleWriterCore& writer, const T& value) {
    // Both pair types store their components first, second.
    C pair[2];
    std::memcpy(pair, &value, sizeof(pair));
    PairEncoding<T, C>::write(writer, pair[0], pair[1]);
}

// The 32-bit integer as one word.
struct Int32Encoding {
    static void write(BundleWriterCore& writer, int value) { writer.writeInt32(value); }
    static int read(BundleReaderCore& reader) { return reader.readInt32(); }
};

} // namespace Dovel
