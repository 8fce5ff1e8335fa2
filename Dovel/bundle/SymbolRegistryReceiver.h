// The module "Quillon.Dovel.SymbolRegistry": learns the peer's symbol numbers into the
// session's receive-side registry (owned by the session core, which outlives this
// module). Lives on the session's thread.
#pragma once

#include "Dovel/bundle/BundleReceiver.h"

namespace Basalt {
class SymbolRegistry;
}

namespace Dovel {

class SymbolRegistryReceiver : public BundleReceiver {
public:
    explicit SymbolRegistryReceiver(Basalt::SymbolRegistry& registry);
    ~SymbolRegistryReceiver() override;

    // Defines each (u32 symbol, string name) pair of the bundle in order. A truncated
    // pair throws std::out_of_range; the pairs before it stay defined.
    void handleBundle(BundleReader& reader) override;

private:
    Basalt::SymbolRegistry& registry;
};

} // namespace Dovel
