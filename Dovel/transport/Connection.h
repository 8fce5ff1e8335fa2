// The outgoing end of a binary session: where a BundleController sends the bundles of
// each output pass. Implementations may be called from any thread.
#pragma once

#include "Dovel/bundle/Bundle.h"

#include <vector>

namespace Dovel {

class Connection {
public:
    virtual ~Connection();
    // Sends one batch; an empty batch sends nothing.
    virtual void send(const std::vector<Bundle>& bundles) = 0;
};

} // namespace Dovel
