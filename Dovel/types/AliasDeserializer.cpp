#include "Dovel/types/AliasDeserializer.h"

#include "Basalt/Trace.h"

#include <exception>

namespace Dovel {

std::shared_ptr<AliasDeserializer> AliasDeserializer::create(Tessel::AttributeAlias* alias,
                                                             Factory factory, uint32_t valueSize) {
    std::shared_ptr<AliasDeserializer> self(
        new AliasDeserializer(alias, std::move(factory), valueSize));
    // The listeners hold only a weak reference; the destructor removes them while the
    // alias lives.
    std::weak_ptr<AliasDeserializer> weak = self;
    self->listenerId = alias->addListener(
        [weak] {
            if (auto alive = weak.lock())
                alive->targetChanged();
        },
        Tessel::Attribute::RoleChange);
    self->deleteListenerId = alias->addListener(
        [weak] {
            if (auto alive = weak.lock())
                alive->aliasGone();
        },
        Tessel::Attribute::RoleDelete);
    return self;
}

AliasDeserializer::AliasDeserializer(Tessel::AttributeAlias* alias, Factory factory,
                                     uint32_t valueSize)
    : alias(alias), factory(std::move(factory)), valueSize(valueSize) {}

AliasDeserializer::~AliasDeserializer() {
    stopListening();
}

void AliasDeserializer::stopListening() {
    if (!alias)
        return;
    if (listenerId >= 0)
        alias->removeListener(listenerId);
    if (deleteListenerId >= 0)
        alias->removeListener(deleteListenerId);
    listenerId = deleteListenerId = -1;
}

void AliasDeserializer::aliasGone() {
    // Its listeners go with it; what arrives from now on is read past.
    alias = nullptr;
    listenerId = deleteListenerId = -1;
    cache.clear();
}

void AliasDeserializer::operator()(BundleReaderCore& reader) {
    if (deserializer) {
        deserializer(reader);
        return;
    }
    if (!alias) {
        readValue(reader);
        return;
    }
    Basalt::Trace::info("AliasDeserializer for '%s' called but alias does not have a target. "
                        "Will cache the value",
                        alias->name().constData());
    cache = readValue(reader);
}

QByteArray AliasDeserializer::readValue(BundleReaderCore& reader) const {
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
    return value;
}

void AliasDeserializer::targetChanged() {
    if (deserializer || !alias)
        return;
    Tessel::Attribute* target = Tessel::AttributeAlias::resolve(alias);
    if (!target)
        return;
    deserializer = factory(target);
    if (!deserializer) {
        // Waited past like no target: a later one that fits still binds.
        Basalt::Trace::warning("AliasDeserializer::targetChanged # The target of '%s' cannot "
                               "take this type; values wait for one that can",
                               alias->name().constData());
        return;
    }
    Basalt::Trace::info("AliasDeserializer for '%s' found a target. Switching to normal "
                        "deserializer. Have cached value: %s",
                        alias->name().constData(), cache.isEmpty() ? "no" : "yes");
    stopListening();
    alias = nullptr; // bound: the alias is no longer needed, nor watched
    if (cache.isEmpty())
        return;
    const BundleCore bytes(cache);
    cache.clear();
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
