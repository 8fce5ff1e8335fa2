// Serializers and deserializers bound to one attribute, per attribute family. Each is
// a lambda that captures only the attribute pointer, so a Codec keeps it in place of a
// pointer and a call appends or reads the value in place. Serializers read
// the effective value; deserializers write layer 2 (containers, grids and splines,
// which have no layers, replace their content and fire one change). The attribute must
// outlive the codec; both run on the tree thread.
#pragma once

#include "Dovel/types/Codec.h"
#include "Dovel/types/ValueEncodings.h"

#include "Tessel/AttributeContainer.h"
#include "Tessel/AttributeGrid.h"
#include "Tessel/AttributeSpline.h"
#include "Tessel/AttributeT.h"

#include <functional>
#include <vector>

namespace Dovel {

using Serializer = Codec<BundleWriterCore>;
using Deserializer = Codec<BundleReaderCore>;

// Fixed-size values and strings: an AttributeBaseT<T> (or a class derived from it) whose value
// travels in Encoding.
template <typename A, typename Encoding> struct ValueCodec {
    static Serializer serializer(A* attribute) {
        return
            [attribute](BundleWriterCore& writer) { Encoding::write(writer, attribute->value()); };
    }
    static Deserializer deserializer(A* attribute) {
        return [attribute](BundleReaderCore& reader) {
            attribute->setValue(Encoding::read(reader), Tessel::Attribute::LayerRemote);
        };
    }
};

// Integers and enumerations: the attribute's integer form; the deserializer accepts any attribute
// that takes an integer.
struct IntCodec {
    static Serializer serializer(Tessel::Attribute* attribute) {
        return [attribute](BundleWriterCore& writer) {
            writer.writeInt32(attribute->asInt(nullptr, Tessel::Attribute::LayerCurrent));
        };
    }
    static Deserializer deserializer(Tessel::Attribute* attribute) {
        return [attribute](BundleReaderCore& reader) {
            const int value = reader.readInt32();
            attribute->set(value, Tessel::Attribute::LayerRemote, Tessel::Attribute::UnitNumber);
        };
    }
};

// Two-component tuples: two 4-byte components, applied inside one update bracket so the
// tuple fires at most one change.
template <typename A> struct TupleCodec {
    using C = typename A::Component::ValueType;
    using Encoding = PairEncoding<typename A::ValueType, C>;
    static Serializer serializer(A* attribute) {
        return [attribute](BundleWriterCore& writer) {
            C pair[2] = {C(-1), C(-1)};
            for (int i = 0; i < 2; ++i)
                pair[i] = attribute->component(i).value();
            Encoding::write(writer, pair[0], pair[1]);
        };
    }
    static Deserializer deserializer(A* attribute) {
        return [attribute](BundleReaderCore& reader) {
            C pair[2];
            Encoding::readPair(reader, pair[0], pair[1]);
            attribute->beginUpdate();
            for (int i = 0; i < 2; ++i)
                attribute->component(i).setValue(pair[i], Tessel::Attribute::LayerRemote);
            attribute->endUpdate();
        };
    }
};

// Containers of strings or of fixed-size elements: an AttributeContainer whose vector is decoded
// straight into its storage (reusing its capacity), then one change.
template <typename A, typename Encoding> struct ContainerCodec {
    static Serializer serializer(A* attribute) {
        return
            [attribute](BundleWriterCore& writer) { Encoding::write(writer, attribute->value()); };
    }
    static Deserializer deserializer(A* attribute) {
        return [attribute](BundleReaderCore& reader) {
            Encoding::readInto(reader, attribute->data());
            attribute->emitChange();
        };
    }
};

// 8-bit memory grids.
struct GridCodec {
    using A = Tessel::AttributeGrid<uint8_t>;
    static Serializer serializer(A* attribute) {
        return [attribute](BundleWriterCore& writer) {
            GridEncoding::write(writer, attribute->grid());
        };
    }
    static Deserializer deserializer(A* attribute) {
        return [attribute](BundleReaderCore& reader) {
            GridEncoding::read(reader, [attribute](const uint8_t* cells, int width, int height) {
                attribute->setGrid(cells, width, height); // copies and fires one change
            });
        };
    }
};

// Splines: the points in the container encoding of 8-byte points.
struct SplineCodec {
    using A = Tessel::AttributeSpline;
    using Encoding = VectorEncoding<std::vector<Quant::Vector2f>>;
    static Serializer serializer(A* attribute) {
        return
            [attribute](BundleWriterCore& writer) { Encoding::write(writer, attribute->points()); };
    }
    static Deserializer deserializer(A* attribute) {
        return [attribute](BundleReaderCore& reader) {
            attribute->setPoints(Encoding::read(reader)); // stores and fires one change
        };
    }
};

} // namespace Dovel
