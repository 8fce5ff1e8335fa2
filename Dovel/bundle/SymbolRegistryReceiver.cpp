#include "Dovel/bundle/SymbolRegistryReceiver.h"

#include "Dovel/bundle/ModuleNames.h"

#include "Basalt/SymbolRegistry.h"

#include <stdexcept>
#include <string>

namespace Dovel {

SymbolRegistryReceiver::SymbolRegistryReceiver(Basalt::SymbolRegistry& registry, int maxSymbols,
                                               const Basalt::SymbolRegistry* localNames)
    : BundleReceiver(ModuleNames::SymbolRegistry), registry(registry), maxSymbols(maxSymbols),
      localNames(localNames) {}

SymbolRegistryReceiver::~SymbolRegistryReceiver() = default;

void SymbolRegistryReceiver::handleBundle(BundleReader& reader) {
    while (!reader.atEnd()) {
        const uint32_t symbol = reader.readUInt32();
        const QByteArray read = reader.readBytes();
        const QByteArray name = localNames ? localNames->sharedName(read) : read;
        // Only a pair of a new name and a new symbol grows the table; a rebinding
        // replaces an entry. Below the limit any definition may grow it by one, so the
        // lookups that tell are made only at the limit.
        if (registry.size() >= maxSymbols && registry.lookup(name) == 0 &&
            registry.lookup(symbol).isNull() && symbol != 0)
            throw std::invalid_argument(
                "SymbolRegistryReceiver::handleBundle # the peer defined more than " +
                std::to_string(maxSymbols) + " symbols; refusing '" + name.left(80).toStdString() +
                "' (" + std::to_string(symbol) + ")");
        // A refused or repeated definition changes nothing worth reporting.
        registry.define(name, symbol);
    }
}

} // namespace Dovel
