// The receiving half of the handshake module (message type 0): reads the peer's
// commands, binds modules at its request through the dispatcher and logs the errors it
// reports. Owned by the dispatcher, to which it keeps a plain back pointer; lives on the
// session's thread.
#pragma once

#include "Dovel/bundle/BundleReceiver.h"

namespace Dovel {

class BundleDispatcher;

class HandshakeReceiver : public BundleReceiver {
public:
    explicit HandshakeReceiver(BundleDispatcher* dispatcher);
    ~HandshakeReceiver() override;

    // Runs every command of the bundle in order. Known commands are parsed by their
    // fields; an unknown one is skipped by its length, and throws std::out_of_range
    // when its name alone overran that length.
    void handleBundle(BundleReader& reader) override;

private:
    BundleDispatcher* dispatcher; // not owned; owns this receiver
};

} // namespace Dovel
