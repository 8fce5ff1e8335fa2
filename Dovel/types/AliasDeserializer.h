// The deserializer of an alias that points nowhere yet: it keeps the latest value that
// arrives (in its bundle encoding) and, as soon as the alias chain reaches a real
// attribute that can take the type, makes the normal deserializer for it and replays
// that value once. A target that cannot take the type is waited past, like no target.
// Once the alias is destroyed, values are read past. FunctorWrap is the callable handed
// out in place of a plain deserializer; it shares the AliasDeserializer, which lives as
// long as the last copy of it.
//
// Thread contract: the deserializer and the alias listener both run on the tree
// thread; the cache is not locked.
#pragma once

#include "Dovel/types/AttributeCodecs.h"

#include "Tessel/AttributeAlias.h"

#include <QByteArray>

#include <cstdint>
#include <functional>
#include <memory>

namespace Dovel {

class AliasDeserializer {
public:
    using Factory = std::function<Deserializer(Tessel::Attribute*)>;

    // Registers listeners on `alias` for its target and its end. `valueSize` is the
    // fixed encoded size of one value, 0 when values start with a length word.
    static std::shared_ptr<AliasDeserializer> create(Tessel::AttributeAlias* alias, Factory factory,
                                                     uint32_t valueSize);
    ~AliasDeserializer();
    AliasDeserializer(const AliasDeserializer&) = delete;
    AliasDeserializer& operator=(const AliasDeserializer&) = delete;

    // Applies one value, or caches it while there is no target.
    void operator()(BundleReaderCore& reader);

    bool isBound() const { return bool(deserializer); }
    // The cached value in bundle encoding; empty when none.
    const QByteArray& cachedValue() const { return cache; }

private:
    AliasDeserializer(Tessel::AttributeAlias* alias, Factory factory, uint32_t valueSize);
    // The value at the reader, in bundle encoding and padded to 4.
    QByteArray readValue(BundleReaderCore& reader) const;
    void targetChanged();
    void aliasGone();
    void stopListening();

    Tessel::AttributeAlias* alias; // not owned; null once destroyed or bound
    Factory factory;
    uint32_t valueSize;
    Deserializer deserializer;
    QByteArray cache;
    long listenerId = -1;
    long deleteListenerId = -1;
};

class FunctorWrap {
public:
    explicit FunctorWrap(std::shared_ptr<AliasDeserializer> target = nullptr)
        : target(std::move(target)) {}
    void operator()(BundleReaderCore& reader) const;
    const std::shared_ptr<AliasDeserializer>& aliasDeserializer() const { return target; }

private:
    std::shared_ptr<AliasDeserializer> target;
};

} // namespace Dovel
