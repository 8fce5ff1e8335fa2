// The module "Quillon.Dovel.SymbolRegistry": learns the peer's symbol numbers into the
// session's receive-side registry (owned by the session core, which outlives this
// module). Lives on the session's thread.
#pragma once

#include "Dovel/Limits.h"
#include "Dovel/bundle/BundleReceiver.h"

namespace Basalt {
class SymbolRegistry;
}

namespace Dovel {

class SymbolRegistryReceiver : public BundleReceiver {
public:
    // `maxSymbols` bounds the registry's size; only tests pass another value.
    explicit SymbolRegistryReceiver(Basalt::SymbolRegistry& registry,
                                    int maxSymbols = Limits::MaxPeerSymbols);
    ~SymbolRegistryReceiver() override;

    // Defines each (u32 symbol, string name) pair of the bundle in order. A truncated
    // pair throws std::out_of_range; a pair that would grow the registry beyond its
    // limit throws std::invalid_argument. The pairs before either stay defined.
    void handleBundle(BundleReader& reader) override;

private:
    Basalt::SymbolRegistry& registry;
    const int maxSymbols;
};

} // namespace Dovel
