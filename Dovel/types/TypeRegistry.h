// The one place that knows how attribute values cross the wire: a fixed type code per
// attribute class, and for each code a factory of fresh attributes, serializer and
// deserializer factories bound to one attribute, and variant codecs for values that
// travel without an attribute. The type codes are part of the protocol.
//
// Thread contract: filled by the constructor and read-only afterwards (the variant
// setters must be called before the registry is shared), so const calls may run on any
// thread. The codecs it returns touch attributes and run on the tree thread.
#pragma once

#include "Dovel/types/AttributeCodecs.h"
#include "Dovel/types/TypeCodes.h"
#include "Dovel/types/VariantCodecs.h"

#include "Tessel/Attribute.h"

#include <cstdint>
#include <functional>
#include <map>
#include <typeindex>
#include <unordered_map>
#include <vector>

namespace Dovel {

class TypeRegistry {
public:
    using AttributeFactory = std::function<Tessel::Attribute*()>;
    using DeserializerFactory = std::function<Deserializer(Tessel::Attribute*)>;
    using TypeMatcher = std::function<bool(Tessel::Attribute*)>;
    using SerializerFactory =
        std::function<Serializer(Tessel::Attribute*, uint32_t& typeCode, uint32_t& valueSize)>;

    TypeRegistry();
    TypeRegistry(const TypeRegistry&);
    TypeRegistry(TypeRegistry&&) noexcept;
    TypeRegistry& operator=(const TypeRegistry&);
    TypeRegistry& operator=(TypeRegistry&&) noexcept;
    ~TypeRegistry();

    // A new detached attribute of the code's class (owned by the caller); null for an
    // unknown code.
    Tessel::Attribute* createAttribute(uint32_t typeCode) const;
    // Whether `attribute` is of the very class createAttribute makes for the code (a
    // mirror keeps an attribute only then). False for an unknown code.
    bool isMadeFor(uint32_t typeCode, const Tessel::Attribute& attribute) const;
    // A serializer of the attribute's current value (aliases are followed to their final
    // target); on success sets typeCode and valueSize. Empty when the class is unknown
    // or an alias chain ends in null (then a warning is logged).
    Serializer createSerializer(Tessel::Attribute* attribute, uint32_t& typeCode,
                                uint32_t& valueSize) const;
    // A deserializer that stores values into `attribute` at layer 2. Empty (with an
    // error) for an unknown code, or when the attribute's class does not fit. For an
    // alias whose chain ends in null: a deserializer that caches the latest value until
    // the alias gets a target.
    Deserializer createDeserializer(uint32_t typeCode, Tessel::Attribute* attribute) const;

    // Empty when no codec is registered for the code.
    VariantSerializer createVariantSerializer(uint32_t typeCode) const;
    VariantDeserializer createVariantDeserializer(uint32_t typeCode) const;
    // Insert or replace a code's variant codec.
    void setVariantSerializer(uint32_t typeCode, VariantSerializer serializer);
    void setVariantDeserializer(uint32_t typeCode, VariantDeserializer deserializer);

    // The fixed encoded size of one value of the code; 0 for variable length or an
    // unknown code.
    uint32_t valueSize(uint32_t typeCode) const;

private:
    // One registration: the same keys in later calls replace earlier entries.
    struct Entry {
        uint32_t code;
        uint32_t size;
        const std::type_info* type;
        AttributeFactory create;
        DeserializerFactory deserializer;
        TypeMatcher matcher;
        SerializerFactory serializer;
        VariantSerializer variantSerializer;
        VariantDeserializer variantDeserializer;
    };
    void add(Entry entry);
    template <typename A, typename Codec, typename Value, typename Encoding>
    void registerType(uint32_t code, uint32_t size, const char* variantTypeName = nullptr);

    void initDefaultTypes();
    void initStringTypes();
    void initStringList();
    void initMemGrids();
    void initSpline();
    void initEnumAndIntTypes();

    // By type code (a code without a factory holds an empty one): every attribute a peer
    // announces looks both up.
    std::vector<AttributeFactory> attributeFactories;
    std::vector<DeserializerFactory> deserializerFactories;
    std::unordered_map<std::type_index, TypeMatcher> typeMatchers;
    // The keys of typeMatchers in registration order: the order of the subclass
    // fallback in createSerializer.
    std::vector<std::type_index> matcherOrder;
    std::unordered_map<std::type_index, SerializerFactory> serializerFactories;
    // The same keyed by the address of the registered class's type_info: hashing a
    // pointer is cheap where a type_index hashes the class's name, once per attribute
    // of an output pass. A class whose type_info has another address (a copy in another
    // library) falls back on the map above.
    std::unordered_map<const std::type_info*, SerializerFactory> serializersByTypeInfo;
    std::unordered_map<uint32_t, uint32_t> valueSizes;
    std::map<uint32_t, VariantSerializer> variantSerializers;
    std::map<uint32_t, VariantDeserializer> variantDeserializers;
    // The class createAttribute makes per code (from a sample made at registration).
    std::unordered_map<uint32_t, std::type_index> madeClasses;
};

} // namespace Dovel
