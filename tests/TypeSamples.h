// Every supported type code, and a value of each that differs from the type's default,
// for the tests that send a tree of every type across a session.
#pragma once

#include "Dovel/bundle/Bundle.h"
#include "Dovel/bundle/BundleReader.h"
#include "Dovel/bundle/BundleWriter.h"
#include "Dovel/types/MetaTypes.h"
#include "Dovel/types/TypeRegistry.h"

#include "Quant/Vector.h"
#include "Tessel/Attribute.h"

#include <QByteArray>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <cstdint>

namespace TypeSamples {

const uint32_t allCodes[] = {1,  2,  3,  4,  9,  10, 11, 12, 13, 14, 15, 16,
                             17, 19, 20, 22, 23, 26, 29, 32, 34, 35, 36, 40,
                             41, 42, 43, 44, 45, 46, 47, 48, 49, 50, 51, 52};

// Gives a fresh attribute of `code` a value that differs from its default (the grid
// keeps its empty default).
inline void fill(const Dovel::TypeRegistry& types, uint32_t code, Tessel::Attribute* attribute) {
    Dovel::Bundle bundle;
    Dovel::BundleWriterCore writer(bundle);
    const uint32_t size = types.valueSize(code);
    if (size > 0) {
        QByteArray bytes(int(size), '\0');
        for (int i = 0; i < bytes.size(); ++i)
            bytes[i] = char(code == 1 ? 1 : (i % 4 == 0 ? code + i : 0)); // small ints, tiny floats
        writer.writeData(bytes.constData(), size);
    } else {
        QVariant sample;
        switch (code) {
        case 35:
        case 51:
            sample = QStringLiteral("/textures/wood.png");
            break;
        case 36:
        case 44:
            sample = QStringList{"alpha", "", "gamma"};
            break;
        case 40:
            sample = QVariant::fromValue(QVector<float>{1.5f, -2.0f});
            break;
        case 41:
        case 46:
            sample = Dovel::toVariant(QVector<Quant::Vector2f>{{1, 2}, {3, 4}});
            break;
        case 42:
            sample = QVariant::fromValue(QVector<int32_t>{-1, 7});
            break;
        case 43:
            sample = QVariant::fromValue(QVector<uint32_t>{9u, 4000000000u});
            break;
        default:
            return;
        }
        types.createVariantSerializer(code)(writer, sample);
    }
    Dovel::BundleReader reader(bundle);
    types.createDeserializer(code, attribute)(reader);
}

} // namespace TypeSamples
