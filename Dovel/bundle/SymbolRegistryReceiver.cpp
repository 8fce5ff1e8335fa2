#include "Dovel/bundle/SymbolRegistryReceiver.h"

#include "Dovel/bundle/ModuleNames.h"

#include "Basalt/SymbolRegistry.h"

namespace Dovel {

SymbolRegistryReceiver::SymbolRegistryReceiver(Basalt::SymbolRegistry& registry)
    : BundleReceiver(ModuleNames::SymbolRegistry), registry(registry) {}

SymbolRegistryReceiver::~SymbolRegistryReceiver() = default;

void SymbolRegistryReceiver::handleBundle(BundleReader& reader) {
    while (!reader.atEnd()) {
        const uint32_t symbol = reader.readUInt32();
        const QByteArray name = reader.readBytes();
        // A refused or repeated definition changes nothing worth reporting.
        registry.define(name, symbol);
    }
}

} // namespace Dovel
