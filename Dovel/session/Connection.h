// The outgoing end of a binary session: where a BundleController sends the bundles of
// each output pass. Implementations may be called from any thread.
#pragma once

#include "Dovel/bundle/Bundle.h"

#include <functional>
#include <vector>

namespace Dovel {

class Connection {
public:
    virtual ~Connection();
    // Sends one batch; an empty batch sends nothing.
    virtual void send(const std::vector<Bundle>& bundles) = 0;
    // Whether the next batch should wait because the peer is reading slower than the
    // session writes. When true, `wake` is called once (on any thread) as soon as the
    // peer has caught up. Never holds back here.
    virtual bool holdBack(const std::function<void()>& wake);
};

} // namespace Dovel
