#include "Dovel/types/TypeRegistry.h"

#include "Dovel/types/AliasDeserializer.h"

#include "Tessel/AttributeAlias.h"
#include "Tessel/AttributeAsset.h"
#include "Tessel/AttributeContainer.h"
#include "Tessel/AttributeEnum.h"
#include "Tessel/AttributeGrid.h"
#include "Tessel/AttributeSpline.h"
#include "Tessel/AttributeT.h"

#include "Basalt/Trace.h"

#include <memory>

#include <QStringList>
#include <QVector>

namespace Dovel {

using Tessel::Attribute;

namespace {

template <typename A> bool isA(Attribute* attribute) {
    return dynamic_cast<A*>(attribute) != nullptr;
}

} // namespace

TypeRegistry::TypeRegistry() {
    typeMatchers.max_load_factor(1.0f);
    typeMatchers.rehash(8);
    serializerFactories.max_load_factor(1.0f);
    serializerFactories.rehash(8);
    valueSizes.max_load_factor(1.0f);
    valueSizes.rehash(8);
    initDefaultTypes();
}

TypeRegistry::TypeRegistry(const TypeRegistry&) = default;
TypeRegistry::TypeRegistry(TypeRegistry&&) noexcept = default;
TypeRegistry& TypeRegistry::operator=(const TypeRegistry&) = default;
TypeRegistry& TypeRegistry::operator=(TypeRegistry&&) noexcept = default;
TypeRegistry::~TypeRegistry() = default;

void TypeRegistry::add(Entry entry) {
    // What the factory makes may be a class of its own (enumerations arrive as ints).
    madeClasses.erase(entry.code);
    if (entry.create)
        if (const std::unique_ptr<Attribute> sample{entry.create()})
            madeClasses.emplace(entry.code, std::type_index(typeid(*sample)));
    attributeFactories[entry.code] = std::move(entry.create);
    deserializerFactories[entry.code] = std::move(entry.deserializer);
    if (typeMatchers.find(entry.type) == typeMatchers.end())
        matcherOrder.push_back(entry.type);
    typeMatchers[entry.type] = std::move(entry.matcher);
    serializerFactories[entry.type] = std::move(entry.serializer);
    valueSizes[entry.code] = entry.size;
    variantSerializers[entry.code] = std::move(entry.variantSerializer);
    variantDeserializers[entry.code] = std::move(entry.variantDeserializer);
}

// A is the attribute class, Codec its attribute codecs (serializer(A*), deserializer(A*)),
// Value and Encoding the variant form of its values.
template <typename A, typename Codec, typename Value, typename Encoding>
void TypeRegistry::registerType(uint32_t code, uint32_t size, const char* variantTypeName) {
    add(Entry{code, size, std::type_index(typeid(A)), [] { return static_cast<Attribute*>(new A); },
              [](Attribute* attribute) -> Deserializer {
                  A* target = dynamic_cast<A*>(attribute);
                  return target ? Codec::deserializer(target) : Deserializer();
              },
              &isA<A>,
              [code, size](Attribute* attribute, uint32_t& typeCode, uint32_t& valueSize) {
                  // Only called for an A or a class derived from it.
                  typeCode = code;
                  valueSize = size;
                  return Codec::serializer(static_cast<A*>(attribute));
              },
              VariantCodec<Value, Encoding>::serializer(variantTypeName),
              VariantCodec<Value, Encoding>::deserializer()});
}

namespace {

template <typename T> using RawCodec = ValueCodec<Tessel::AttributeT<T>, RawEncoding<T>>;
template <typename E>
using VectorCodec =
    ContainerCodec<Tessel::AttributeContainer<std::vector<E>>, VectorEncoding<std::vector<E>>>;
template <typename A> using Tuple = TupleCodec<A>;

} // namespace

void TypeRegistry::initDefaultTypes() {
    using namespace Tessel;
#define DOVEL_RAW(code, T)                                                                         \
    registerType<AttributeT<T>, RawCodec<T>, T, RawEncoding<T>>(code, sizeof(T))
    DOVEL_RAW(1, bool);
    DOVEL_RAW(2, Basalt::Color);
    DOVEL_RAW(48, Basalt::ColorPMA);
    DOVEL_RAW(3, float);
    DOVEL_RAW(4, double);
    DOVEL_RAW(10, uint32_t);
    DOVEL_RAW(11, int64_t);
    DOVEL_RAW(12, uint64_t);
    DOVEL_RAW(13, Quant::Recti);
    DOVEL_RAW(14, Quant::Rectf);
    DOVEL_RAW(15, Quant::Rectd);
    DOVEL_RAW(16, Quant::Vector2i);
    DOVEL_RAW(17, Quant::Vector2f);
    DOVEL_RAW(19, Quant::Vector3i);
    DOVEL_RAW(20, Quant::Vector3f);
    DOVEL_RAW(22, Quant::Vector4i);
    DOVEL_RAW(23, Quant::Vector4f);
    registerType<AttributeT<Quant::SizeF>, Tuple<AttributeT<Quant::SizeF>>, Quant::SizeF,
                 PairValueEncoding<Quant::SizeF, float>>(50, 8);
    registerType<AttributeT<Quant::SizeI>, Tuple<AttributeT<Quant::SizeI>>, Quant::SizeI,
                 PairValueEncoding<Quant::SizeI, int>>(52, 8);
    registerType<AttributeT<Quant::Vector2f, Separate>,
                 Tuple<AttributeT<Quant::Vector2f, Separate>>, Quant::Vector2f,
                 PairValueEncoding<Quant::Vector2f, float>>(49, 8);
    DOVEL_RAW(26, Quant::Matrix2f);
    DOVEL_RAW(29, Quant::Matrix3f);
    DOVEL_RAW(32, Quant::Matrix4f);
    DOVEL_RAW(34, Basalt::TimeStamp);
#undef DOVEL_RAW
    registerType<AttributeContainer<std::vector<float>>, VectorCodec<float>, QVector<float>,
                 VectorEncoding<QVector<float>>>(40, 0);
    registerType<AttributeContainer<std::vector<Quant::Vector2f>>, VectorCodec<Quant::Vector2f>,
                 QVector<Quant::Vector2f>, VectorEncoding<QVector<Quant::Vector2f>>>(
        41, 0, "QVector<Quant::Vector2f>");
    registerType<AttributeContainer<std::vector<int32_t>>, VectorCodec<int32_t>, QVector<int32_t>,
                 VectorEncoding<QVector<int32_t>>>(42, 0);
    registerType<AttributeContainer<std::vector<uint32_t>>, VectorCodec<uint32_t>,
                 QVector<uint32_t>, VectorEncoding<QVector<uint32_t>>>(43, 0);

    initStringTypes();
    initStringList();
    initMemGrids();
    initSpline();
    initEnumAndIntTypes();
}

void TypeRegistry::initStringTypes() {
    using namespace Tessel;
    using StringVector = std::vector<QString>;
    registerType<AttributeContainer<StringVector>,
                 ContainerCodec<AttributeContainer<StringVector>, StringListEncoding<StringVector>>,
                 QStringList, StringListEncoding<QStringList>>(44, 0, "QStringList");
    registerType<AttributeT<QString>, ValueCodec<AttributeT<QString>, StringEncoding>, QString,
                 StringEncoding>(35, 0, "QString");
    registerType<AttributeAsset, ValueCodec<AttributeAsset, StringEncoding>, QString,
                 StringEncoding>(51, 0, "QString");
}

void TypeRegistry::initStringList() {
    using namespace Tessel;
    registerType<AttributeT<QStringList>,
                 ValueCodec<AttributeT<QStringList>, StringListEncoding<QStringList>>, QStringList,
                 StringListEncoding<QStringList>>(36, 0, "QStringList");
}

void TypeRegistry::initMemGrids() {
    registerType<Tessel::AttributeGrid<uint8_t>, GridCodec, Basalt::MemGrid8u, GridEncoding>(
        45, 0, "Basalt::MemGrid8u");
}

void TypeRegistry::initSpline() {
    registerType<Tessel::AttributeSpline, SplineCodec, QVector<Quant::Vector2f>,
                 VectorEncoding<QVector<Quant::Vector2f>>>(46, 0, "QVector<Quant::Vector2f>");
}

void TypeRegistry::initEnumAndIntTypes() {
    // Both codes arrive as a plain integer attribute, and their deserializer takes any
    // attribute that accepts an integer; only the sender tells an enumeration apart.
    const AttributeFactory create = [] {
        return static_cast<Attribute*>(new Tessel::AttributeT<int>);
    };
    const DeserializerFactory deserializer = [](Attribute* attribute) -> Deserializer {
        return attribute ? IntCodec::deserializer(attribute) : Deserializer();
    };
    const auto serializer = [](uint32_t code) -> SerializerFactory {
        return [code](Attribute* attribute, uint32_t& typeCode, uint32_t& valueSize) {
            typeCode = code;
            valueSize = 4;
            return IntCodec::serializer(attribute);
        };
    };
    add(Entry{47, 4, std::type_index(typeid(Tessel::AttributeEnum)), create, deserializer,
              &isA<Tessel::AttributeEnum>, serializer(47),
              VariantCodec<int, Int32Encoding>::serializer("int32_t"),
              VariantCodec<int, Int32Encoding>::deserializer()});
    add(Entry{9, 4, std::type_index(typeid(Tessel::AttributeT<int>)), create, deserializer,
              &isA<Tessel::AttributeT<int>>, serializer(9),
              VariantCodec<int, Int32Encoding>::serializer("int"),
              VariantCodec<int, Int32Encoding>::deserializer()});
}

Attribute* TypeRegistry::createAttribute(uint32_t typeCode) const {
    const auto it = attributeFactories.find(typeCode);
    return it == attributeFactories.end() ? nullptr : it->second();
}

bool TypeRegistry::isMadeFor(uint32_t typeCode, const Attribute& attribute) const {
    const auto known = madeClasses.find(typeCode);
    return known != madeClasses.end() && known->second == std::type_index(typeid(attribute));
}

Serializer TypeRegistry::createSerializer(Attribute* attribute, uint32_t& typeCode,
                                          uint32_t& valueSize) const {
    if (!attribute)
        return Serializer();
    Attribute* target = Tessel::AttributeAlias::resolve(attribute);
    if (!target) {
        Basalt::Trace::warning("Dovel TypeRegistry asked to create serializer for alias attribute "
                               "'%s' that ultimately has a null target. Ignoring.",
                               attribute->name().constData());
        return Serializer();
    }
    auto it = serializerFactories.find(std::type_index(typeid(*target)));
    if (it == serializerFactories.end()) {
        // A host subclass of a registered class travels as that class.
        for (const std::type_index& type : matcherOrder) {
            if (typeMatchers.at(type)(target)) {
                it = serializerFactories.find(type);
                break;
            }
        }
    }
    if (it == serializerFactories.end())
        return Serializer();
    return it->second(target, typeCode, valueSize);
}

Deserializer TypeRegistry::createDeserializer(uint32_t typeCode, Attribute* attribute) const {
    const auto it = deserializerFactories.find(typeCode);
    if (it == deserializerFactories.end()) {
        Basalt::Trace::error("Dovel TypeRegistry - cound not find deserializer factory for type %u",
                             typeCode);
        return Deserializer();
    }
    Attribute* target = Tessel::AttributeAlias::resolve(attribute);
    if (!attribute || target)
        return it->second(target);
    auto* alias = dynamic_cast<Tessel::AttributeAlias*>(attribute);
    if (!alias)
        return it->second(target);
    Basalt::Trace::warning("Dovel TypeRegistry asked to create deserializer for alias attribute "
                           "'%s' that ultimately has a null target. Will create a smart "
                           "deserializer that stores changes and applies them when a target is "
                           "set.",
                           alias->name().constData());
    return FunctorWrap(AliasDeserializer::create(alias, it->second, valueSize(typeCode)));
}

VariantSerializer TypeRegistry::createVariantSerializer(uint32_t typeCode) const {
    const auto it = variantSerializers.find(typeCode);
    return it == variantSerializers.end() ? VariantSerializer() : it->second;
}

VariantDeserializer TypeRegistry::createVariantDeserializer(uint32_t typeCode) const {
    const auto it = variantDeserializers.find(typeCode);
    return it == variantDeserializers.end() ? VariantDeserializer() : it->second;
}

void TypeRegistry::setVariantSerializer(uint32_t typeCode, VariantSerializer serializer) {
    variantSerializers[typeCode] = std::move(serializer);
}

void TypeRegistry::setVariantDeserializer(uint32_t typeCode, VariantDeserializer deserializer) {
    variantDeserializers[typeCode] = std::move(deserializer);
}

uint32_t TypeRegistry::valueSize(uint32_t typeCode) const {
    const auto it = valueSizes.find(typeCode);
    return it == valueSizes.end() ? 0 : it->second;
}

} // namespace Dovel
