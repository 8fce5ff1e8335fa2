// Per-change cost of the type registry's codecs: one value serialized into, or
// deserialized from, a bundle. Reported as values per second.
#include "Dovel/bundle/Bundle.h"
#include "Dovel/bundle/BundleReader.h"
#include "Dovel/bundle/BundleWriter.h"
#include "Dovel/types/TypeRegistry.h"

#include "Tessel/AttributeContainer.h"
#include "Tessel/AttributeT.h"

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

using namespace Dovel;

namespace {

// Serializes `attribute` repeatedly into one bundle that is cut back to its header
// every 1024 values, so the cost measured is the append, not the growth.
void runSerializer(benchmark::State& state, Tessel::Attribute* attribute) {
    const TypeRegistry registry;
    uint32_t code = 0, size = 0;
    const Serializer serializer = registry.createSerializer(attribute, code, size);
    Bundle bundle;
    BundleWriterCore writer(bundle);
    int64_t count = 0;
    for (auto _ : state) {
        serializer(writer);
        if ((++count & 1023) == 0)
            bundle.mutablePacket().resize(int(BundleCore::HeaderSize));
    }
    state.SetItemsProcessed(count);
}

// Deserializes the same encoded value repeatedly into a fresh attribute of the code.
void runDeserializer(benchmark::State& state, Tessel::Attribute* source) {
    const TypeRegistry registry;
    uint32_t code = 0, size = 0;
    const Serializer serializer = registry.createSerializer(source, code, size);
    Bundle bundle;
    BundleWriterCore writer(bundle);
    serializer(writer);
    std::unique_ptr<Tessel::Attribute> target(registry.createAttribute(code));
    const Deserializer deserializer = registry.createDeserializer(code, target.get());
    int64_t count = 0;
    for (auto _ : state) {
        BundleReader reader(bundle);
        deserializer(reader);
        ++count;
    }
    state.SetItemsProcessed(count);
}

Tessel::AttributeT<float>* makeFloat() {
    auto* attribute = new Tessel::AttributeT<float>;
    attribute->setValue(0.5f, Tessel::Attribute::LayerUser);
    return attribute;
}
Tessel::AttributeT<Quant::Vector4f>* makeVec4() {
    auto* attribute = new Tessel::AttributeT<Quant::Vector4f>;
    attribute->setValue(Quant::Vector4f(1, 2, 3, 4), Tessel::Attribute::LayerUser);
    return attribute;
}
Tessel::AttributeT<QString>* makeString() {
    auto* attribute = new Tessel::AttributeT<QString>;
    attribute->setValue(QStringLiteral("layers/background/opacity"), Tessel::Attribute::LayerUser);
    return attribute;
}
Tessel::AttributeContainer<std::vector<float>>* makeFloats() {
    auto* attribute = new Tessel::AttributeContainer<std::vector<float>>;
    attribute->setValue(std::vector<float>(1000, 0.25f));
    return attribute;
}

template <typename Make> void serializeOf(benchmark::State& state, Make make) {
    std::unique_ptr<Tessel::Attribute> attribute(make());
    runSerializer(state, attribute.get());
}
template <typename Make> void deserializeOf(benchmark::State& state, Make make) {
    std::unique_ptr<Tessel::Attribute> attribute(make());
    runDeserializer(state, attribute.get());
}

void BM_SerializeFloat(benchmark::State& state) {
    serializeOf(state, makeFloat);
}
void BM_DeserializeFloat(benchmark::State& state) {
    deserializeOf(state, makeFloat);
}
void BM_SerializeVec4f(benchmark::State& state) {
    serializeOf(state, makeVec4);
}
void BM_DeserializeVec4f(benchmark::State& state) {
    deserializeOf(state, makeVec4);
}
void BM_SerializeString(benchmark::State& state) {
    serializeOf(state, makeString);
}
void BM_DeserializeString(benchmark::State& state) {
    deserializeOf(state, makeString);
}
void BM_SerializeFloatContainer1000(benchmark::State& state) {
    serializeOf(state, makeFloats);
}
void BM_DeserializeFloatContainer1000(benchmark::State& state) {
    deserializeOf(state, makeFloats);
}

} // namespace

BENCHMARK(BM_SerializeFloat);
BENCHMARK(BM_DeserializeFloat);
BENCHMARK(BM_SerializeVec4f);
BENCHMARK(BM_DeserializeVec4f);
BENCHMARK(BM_SerializeString);
BENCHMARK(BM_DeserializeString);
BENCHMARK(BM_SerializeFloatContainer1000);
BENCHMARK(BM_DeserializeFloatContainer1000);
