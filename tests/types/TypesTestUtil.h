// Helpers for the type registry tests: running codecs over real bundles, and the float
// bit patterns that expected bytes are written from.
#pragma once

#include "bundle/BundleTestUtil.h"

#include "Dovel/bundle/Bundle.h"
#include "Dovel/types/TypeRegistry.h"

#include "Tessel/Attribute.h"

#include <QByteArray>
#include <QVariant>

#include <cstring>

namespace TypesTest {

// The layer received values are set on.
constexpr auto L2 = Tessel::Attribute::LayerRemote;

using BundleTest::Bytes;
using BundleTest::failure;
using BundleTest::pastEnd;

// The payload bytes a serializer appends to an empty bundle.
inline QByteArray serialize(const Dovel::Serializer& serializer) {
    Dovel::Bundle bundle;
    Dovel::BundleWriterCore writer(bundle);
    serializer(writer);
    return bundle.packet().mid(int(Dovel::BundleCore::HeaderSize));
}

inline QByteArray serializeVariant(const Dovel::VariantSerializer& serializer,
                                   const QVariant& value) {
    Dovel::Bundle bundle;
    Dovel::BundleWriterCore writer(bundle);
    serializer(writer, value);
    return bundle.packet().mid(int(Dovel::BundleCore::HeaderSize));
}

// Runs `deserializer` over a bundle whose payload is `payload`; returns the payload
// bytes consumed.
inline uint32_t deserialize(const Dovel::Deserializer& deserializer, const QByteArray& payload) {
    const Dovel::Bundle bundle(BundleTest::packet(5, 1, 0, payload));
    Dovel::BundleReader reader(bundle);
    deserializer(reader);
    return reader.pos() - Dovel::BundleCore::HeaderSize;
}

inline QVariant deserializeVariant(const Dovel::VariantDeserializer& deserializer,
                                   const QByteArray& payload) {
    const Dovel::Bundle bundle(BundleTest::packet(5, 1, 0, payload));
    Dovel::BundleReader reader(bundle);
    return deserializer(reader);
}

} // namespace TypesTest
