#include "Dovel/types/AliasDeserializer.h"

#include "Basalt/Trace.h"

#include <exception>

namespace Dovel {

std::shared_ptr<AliasDeserializer> AliasDeserializer::create(Tessel::AttributeAlias* alias,
                                                             Factory factory, uint32_t valueSize) {
    std::shared_ptr<AliasDeserializer> self(
        new AliasDeserializer(alias, std::move(factory), valueSize));
    // The listener holds only a weak reference: when the last FunctorWrap goes first it
    // stays on the alias as a no-op (the alias may already be gone, so it cannot be
    // removed from the destructor).
    std::weak_ptr<AliasDeserializer> weak = self;
    self->listenerId = alias->addListener(
        [weak] {
            if (auto alive = weak.lock())
                alive->targetChanged();
        },
        Tessel::Attribute::RoleChange);
    return self;
}

AliasDeserializer::AliasDeserializer(Tessel::AttributeAlias* alias, Factory factory,
                                     uint32_t valueSize)
    : alias(alias), factory(std::move(factory)), valueSize(valueSize) {}

AliasDeserializer::~AliasDeserializer() = default;

void AliasDeserializer::operator()(BundleReaderCore& reader) {
    if (deserializer) {
        deserializer(reader);
        return;
    }
    Basalt::Trace::info("AliasDeserializer for '%s' called but alias does not have a target. "
                        "Will cache the value",
                        alias->name().constData());
    cacheValue(reader);
}

void AliasDeserializer::cacheValue(BundleReaderCore& reader) {
    cache.clear();
    QByteArray value;
    if (valueSize == 0) {
        const uint32_t length = reader.readUInt32();
        const char* bytes = reader.read(length);
        value.reserve(int(Bundle::align4(length)) + 4);
        value.append(reinterpret_cast<const char*>(&length), 4);
        value.append(bytes, int(length));
    } else {
        value.append(reader.read(valueSize), int(valueSize));
    }
    while (value.size() % 4 != 0)
        value.append('\0');
    cache = value;
}

void AliasDeserializer::targetChanged() {
    if (deserializer)
        return;
    Tessel::Attribute* target = Tessel::AttributeAlias::resolve(alias);
    if (!target)
        return;
    deserializer = factory(target);
    alias->removeListener(listenerId);
    listenerId = -1;
    Basalt::Trace::info("AliasDeserializer for '%s' found a target. Switching to normal "
                        "deserializer. Have cached value: %s",
                        alias->name().constData(), cache.isEmpty() ? "no" : "yes");
    if (cache.isEmpty())
        return;
    const BundleCore bytes(cache);
    cache.clear();
    if (!deserializer) {
        Basalt::Trace::warning("AliasDeserializer::targetChanged # The target of '%s' cannot "
                               "take this type; the cached value is dropped",
                               alias->name().constData());
        return;
    }
    // Runs inside the alias's change notification: nothing may escape into the host.
    try {
        BundleReaderCore reader(bytes);
        deserializer(reader);
    } catch (const std::exception& e) {
        Basalt::Trace::error("AliasDeserializer::targetChanged # %s", e.what());
    }
}

void FunctorWrap::operator()(BundleReaderCore& reader) const {
    if (!target) {
        Basalt::Trace::error("FunctorWrap::operator() # have no functor");
        return;
    }
    (*target)(reader);
}

} // namespace Dovel
