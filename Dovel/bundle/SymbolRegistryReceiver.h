// The module "Quillon.Dovel.SymbolRegistry": learns the peer's symbol numbers into the
// session's receive-side table (owned by the session core, which outlives this module).
// Lives on the session's thread.
#pragma once

#include "Dovel/Limits.h"
#include "Dovel/bundle/BundleReceiver.h"

namespace Dovel {

class PeerSymbols;

class SymbolRegistryReceiver : public BundleReceiver {
public:
    // `maxSymbols` bounds the definitions that change the table (new pairs and
    // rebindings); only tests pass another value.
    explicit SymbolRegistryReceiver(PeerSymbols& registry, int maxSymbols = Limits::MaxPeerSymbols);
    ~SymbolRegistryReceiver() override;

    // Defines each (u32 symbol, string name) pair of the bundle in order. A name longer
    // than Limits::MaxPeerNameBytes is left undefined (logged). A truncated pair throws
    // std::out_of_range; a pair that would change the table once `maxSymbols`
    // definitions have changed it throws std::invalid_argument. The pairs before either
    // stay defined.
    void handleBundle(BundleReader& reader) override;

private:
    PeerSymbols& registry;
    const int maxSymbols;
    int definitions = 0; // definitions that changed the registry
};

} // namespace Dovel
