#include "Dovel/bundle/SymbolRegistryReceiver.h"

#include "Dovel/bundle/ModuleNames.h"
#include "Dovel/bundle/PeerSymbols.h"

#include "Basalt/Trace.h"

#include <stdexcept>
#include <string>
#include <utility>

namespace Dovel {

SymbolRegistryReceiver::SymbolRegistryReceiver(PeerSymbols& registry, int maxSymbols)
    : BundleReceiver(ModuleNames::SymbolRegistry), registry(registry), maxSymbols(maxSymbols) {}

SymbolRegistryReceiver::~SymbolRegistryReceiver() = default;

void SymbolRegistryReceiver::handleBundle(BundleReader& reader) {
    while (!reader.atEnd()) {
        const uint32_t symbol = reader.readUInt32();
        QByteArray name = reader.readBytes();
        if (name.size() > Limits::MaxPeerNameBytes) {
            Basalt::Trace::error("SymbolRegistryReceiver::handleBundle # A name of %d bytes is "
                                 "longer than %d; symbol %u stays undefined ('%s...')",
                                 name.size(), Limits::MaxPeerNameBytes, symbol,
                                 name.left(80).constData());
            continue;
        }
        // A rebinding grows the table no more than a new pair, but each may make the
        // receiver create another attribute, so both count; a repeated pair does not.
        // Below the limit every definition may count, so the lookup that tells is made
        // only at the limit.
        if (definitions >= maxSymbols && symbol != 0 && registry.lookup(symbol) != name)
            throw std::invalid_argument(
                "SymbolRegistryReceiver::handleBundle # the peer defined more than " +
                std::to_string(maxSymbols) + " symbols; refusing '" + name.left(80).toStdString() +
                "' (" + std::to_string(symbol) + ")");
        // A refused or repeated definition changes nothing worth reporting.
        if (registry.define(std::move(name), symbol))
            ++definitions;
    }
}

} // namespace Dovel
