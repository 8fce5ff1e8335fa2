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
#include <stdexcept>
#include <string>

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
    if (entry.code >= TypeCodeLimit)
        throw std::logic_error("TypeRegistry::add # a type code of " + std::to_string(entry.code) +
                               " is not below the limit");
    // What the factory makes may be a class of its own (enumerations arrive as ints).
    madeClasses.erase(entry.code);
    if (entry.create)
        if (const std::unique_ptr<Attribute> sample{entry.create()})
            madeClasses.emplace(entry.code, std::type_index(typeid(*sample)));
    if (entry.code >= attributeFactories.size()) {
        attributeFactories.resize(entry.code + 1);
        deserializerFactories.resize(entry.code + 1);
    }
    attributeFactories[entry.code] = std::move(entry.create);
    deserializerFactories[entry.code] = std::move(entry.deserializer);
    const std::type_index type(*entry.type);
    if (typeMatchers.find(type) == typeMatchers.end())
        matcherOrder.push_back(type);
    typeMatchers[type] = std::move(entry.matcher);
    serializersByTypeInfo[entry.type] = entry.serializer;
    serializerFactories[type] = std::move(entry.serializer);
    valueSizes[entry.code] = entry.size;
    variantSerializers[entry.code] = std::move(entry.variantSerializer);
    variantDeserializers[entry.code] = std::move(entry.variantDeserializer);
}

// A is the attribute class, Codec its attribute codecs (serializer(A*), deserializer(A*)),
// Value and Encoding the variant form of its values.
template <typename A, typename Codec, typename Value, typename Encoding>
void TypeRegistry::registerType(uint32_t code, uint32_t size, const char* variantTypeName) {
    add(Entry{code, size, &typeid(A), [] { return static_cast<Attribute*>(new A); },
              [](Attribute* attribute) -> Deserializer {
                  // Nearly always of the very class (one the registry made for the code):
                  // comparing the types spares the search through the hierarchy.
                  A* target = attribute && typeid(*attribute) == typeid(A)
                                  ? static_cast<A*>(attribute)
                                  : dynamic_cast<A*>(attribute);
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
    DOVEL_RAW(BoolCode, bool);
    DOVEL_RAW(ColorCode, Basalt::Color);
    DOVEL_RAW(ColorPMACode, Basalt::ColorPMA);
    DOVEL_RAW(FloatCode, float);
    DOVEL_RAW(DoubleCode, double);
    DOVEL_RAW(UIntCode, uint32_t);
    DOVEL_RAW(Int64Code, int64_t);
    DOVEL_RAW(UInt64Code, uint64_t);
    DOVEL_RAW(RectICode, Quant::Recti);
    DOVEL_RAW(RectFCode, Quant::Rectf);
    DOVEL_RAW(RectDCode, Quant::Rectd);
    DOVEL_RAW(Vector2ICode, Quant::Vector2i);
    DOVEL_RAW(Vector2FCode, Quant::Vector2f);
    DOVEL_RAW(Vector3ICode, Quant::Vector3i);
    DOVEL_RAW(Vector3FCode, Quant::Vector3f);
    DOVEL_RAW(Vector4ICode, Quant::Vector4i);
    DOVEL_RAW(Vector4FCode, Quant::Vector4f);
    registerType<AttributeT<Quant::SizeF>, Tuple<AttributeT<Quant::SizeF>>, Quant::SizeF,
                 PairValueEncoding<Quant::SizeF, float>>(SizeFCode, 8);
    registerType<AttributeT<Quant::SizeI>, Tuple<AttributeT<Quant::SizeI>>, Quant::SizeI,
                 PairValueEncoding<Quant::SizeI, int>>(SizeICode, 8);
    registerType<AttributeT<Quant::Vector2f, Separate>,
                 Tuple<AttributeT<Quant::Vector2f, Separate>>, Quant::Vector2f,
                 PairValueEncoding<Quant::Vector2f, float>>(Vector2FSeparateCode, 8);
    DOVEL_RAW(Matrix2FCode, Quant::Matrix2f);
    DOVEL_RAW(Matrix3FCode, Quant::Matrix3f);
    DOVEL_RAW(Matrix4FCode, Quant::Matrix4f);
    DOVEL_RAW(TimeStampCode, Basalt::TimeStamp);
#undef DOVEL_RAW
    registerType<AttributeContainer<std::vector<float>>, VectorCodec<float>, QVector<float>,
                 VectorEncoding<QVector<float>>>(FloatVectorCode, 0);
    registerType<AttributeContainer<std::vector<Quant::Vector2f>>, VectorCodec<Quant::Vector2f>,
                 QVector<Quant::Vector2f>, VectorEncoding<QVector<Quant::Vector2f>>>(
        Vector2FVectorCode, 0, "QVector<Quant::Vector2f>");
    registerType<AttributeContainer<std::vector<int32_t>>, VectorCodec<int32_t>, QVector<int32_t>,
                 VectorEncoding<QVector<int32_t>>>(IntVectorCode, 0);
    registerType<AttributeContainer<std::vector<uint32_t>>, VectorCodec<uint32_t>,
                 QVector<uint32_t>, VectorEncoding<QVector<uint32_t>>>(UIntVectorCode, 0);

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
                 QStringList, StringListEncoding<QStringList>>(StringVectorCode, 0, "QStringList");
    registerType<AttributeT<QString>, ValueCodec<AttributeT<QString>, StringEncoding>, QString,
                 StringEncoding>(StringCode, 0, "QString");
    registerType<AttributeAsset, ValueCodec<AttributeAsset, StringEncoding>, QString,
                 StringEncoding>(AssetCode, 0, "QString");
}

void TypeRegistry::initStringList() {
    using namespace Tessel;
    registerType<AttributeT<QStringList>,
                 ValueCodec<AttributeT<QStringList>, StringListEncoding<QStringList>>, QStringList,
                 StringListEncoding<QStringList>>(StringListCode, 0, "QStringList");
}

void TypeRegistry::initMemGrids() {
    registerType<Tessel::AttributeGrid<uint8_t>, GridCodec, Basalt::MemGrid8u, GridEncoding>(
        Grid8UCode, 0, "Basalt::MemGrid8u");
}

void TypeRegistry::initSpline() {
    registerType<Tessel::AttributeSpline, SplineCodec, QVector<Quant::Vector2f>,
                 VectorEncoding<QVector<Quant::Vector2f>>>(SplineCode, 0,
                                                           "QVector<Quant::Vector2f>");
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
    add(Entry{EnumCode, 4, &typeid(Tessel::AttributeEnum), create, deserializer,
              &isA<Tessel::AttributeEnum>, serializer(EnumCode),
              VariantCodec<int, Int32Encoding>::serializer("int32_t"),
              VariantCodec<int, Int32Encoding>::deserializer()});
    add(Entry{IntCode, 4, &typeid(Tessel::AttributeT<int>), create, deserializer,
              &isA<Tessel::AttributeT<int>>, serializer(IntCode),
              VariantCodec<int, Int32Encoding>::serializer("int"),
              VariantCodec<int, Int32Encoding>::deserializer()});
}

Attribute* TypeRegistry::createAttribute(uint32_t typeCode) const {
    if (typeCode >= attributeFactories.size() || !attributeFactories[typeCode])
        return nullptr;
    return attributeFactories[typeCode]();
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
    const std::type_info& type = typeid(*target);
    const auto known = serializersByTypeInfo.find(&type);
    if (known != serializersByTypeInfo.end())
        return known->second(target, typeCode, valueSize);
    auto it = serializerFactories.find(std::type_index(type));
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
    const DeserializerFactory* const factory =
        typeCode < deserializerFactories.size() && deserializerFactories[typeCode]
            ? &deserializerFactories[typeCode]
            : nullptr;
    if (!factory) {
        Basalt::Trace::error("Dovel TypeRegistry - cound not find deserializer factory for type %u",
                             typeCode);
        return Deserializer();
    }
    Attribute* target = Tessel::AttributeAlias::resolve(attribute);
    if (!attribute || target)
        return (*factory)(target);
    auto* alias = dynamic_cast<Tessel::AttributeAlias*>(attribute);
    if (!alias)
        return (*factory)(target);
    Basalt::Trace::warning("Dovel TypeRegistry asked to create deserializer for alias attribute "
                           "'%s' that ultimately has a null target. Will create a smart "
                           "deserializer that stores changes and applies them when a target is "
                           "set.",
                           alias->name().constData());
    return FunctorWrap(AliasDeserializer::create(alias, *factory, valueSize(typeCode)));
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
