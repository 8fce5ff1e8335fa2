// Base of every module that produces bundles. The dispatcher asks each sender for its
// bundles on every output pass. Lives on the session's thread; never entered
// concurrently.
#pragma once

#include "Dovel/bundle/BundleOutput.h"

#include <cstdint>

namespace Dovel {

class BundleDispatcher;

class BundleSender {
public:
    // A message type that is not bound (yet).
    static constexpr uint32_t NoMessageType = 0xFFFFFFFFu;

    BundleSender() = default;
    virtual ~BundleSender();
    BundleSender(const BundleSender&) = delete;
    BundleSender& operator=(const BundleSender&) = delete;

    // Called on every sender before each output pass. Does nothing by default.
    virtual void prepareUpdates();
    // Adds this sender's bundles of the pass to `output`.
    virtual void writeUpdates(BundleOutput& output) = 0;

protected:
    friend class BundleDispatcher;

    // Called once when the sender is added to a dispatcher: the place to resolve the
    // message types the sender will emit. Does nothing by default.
    virtual void initialize(BundleDispatcher& dispatcher);

    // The outgoing number of "Quillon.Dovel.SymbolRegistry", set by the dispatcher when
    // the sender is added, so that any sender can emit symbol definitions.
    uint32_t symbolMessageType = NoMessageType;
};

} // namespace Dovel
