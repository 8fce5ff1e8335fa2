// The hub of one session: routes every incoming bundle by its message type to the
// module bound to that number, binds modules at the peer's request, hands out this
// side's outgoing numbers, and runs the output pass over every sender. Owns the
// handshake module (message type 0). Used only on the thread that runs the session
// (no locking inside); neither copyable nor movable, since its modules point back at it.
#pragma once

#include "Dovel/bundle/Bundle.h"
#include "Dovel/bundle/BundleReader.h"
#include "Dovel/bundle/BundleReceiver.h"
#include "Dovel/bundle/BundleSender.h"

#include <QByteArray>
#include <QMap>
#include <QString>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace Dovel {

class HandshakeReceiver;
class HandshakeSender;

class BundleDispatcher {
public:
    // Creates the handshake module (its sender queues "info") and binds it to 0.
    BundleDispatcher();
    ~BundleDispatcher();
    BundleDispatcher(const BundleDispatcher&) = delete;
    BundleDispatcher& operator=(const BundleDispatcher&) = delete;

    // Offers a receiver to the peer; it receives nothing until the peer binds it.
    void addModule(std::shared_ptr<BundleReceiver> module);
    // Adds a sender to the output pass, gives it the symbol-registry type and calls its
    // initialize().
    void addSender(std::shared_ptr<BundleSender> sender);
    // This side's number for a message type name; the first call for a name queues a
    // "load-module" request and takes the next number. Usable at once: the handshake
    // bundle leaves first in the same output pass.
    uint32_t resolveMessageType(const QByteArray& name);

    // Routes one bundle by header word 1. Exceptions of the receiver pass through, and
    // then the bundle does not count as received.
    void dispatchBundle(BundleReader& reader);
    // Binds a module to the peer's number at its request and queues the reply.
    void loadModule(uint32_t type, const QString& name, const QMap<QString, QString>& params);
    // The output pass: replaces `out` with the bundles of every sender, in sender order.
    void writeUpdates(std::vector<Bundle>& out);

    // Called with the command and module of every "error" the peer answers (after it is
    // logged): how a side learns that the peer lacks a module it asked for.
    using PeerErrorHandler = std::function<void(const QString& command, const QString& module)>;
    void setPeerErrorHandler(PeerErrorHandler handler) { peerError = std::move(handler); }
    void peerReportedError(const QString& command, const QString& module) const {
        if (peerError)
            peerError(command, module);
    }

    // The header word 2 that the next emitted bundle gets (starts at 1).
    uint32_t outputSequence() const { return sequence; }
    // Header word 2 of the last bundle dispatched without an exception (0 before any).
    uint32_t lastReceivedSequence() const { return lastReceived; }

private:
    // Offered and not yet bound.
    std::vector<std::shared_ptr<BundleReceiver>> modules;
    // Incoming number to bound receiver; null for an unknown type already reported.
    std::map<uint32_t, std::shared_ptr<BundleReceiver>> receivers;
    int unknownTypes = 0; // null entries of `receivers` made for unknown types
    // In the order added; the handshake sender first.
    std::vector<std::shared_ptr<BundleSender>> senders;
    uint32_t sequence = 1;
    uint32_t lastReceived = 0;
    std::shared_ptr<HandshakeSender> handshakeSender;
    std::shared_ptr<HandshakeReceiver> handshakeReceiver;
    // Outgoing name to number.
    std::map<QByteArray, uint32_t> messageTypes;
    PeerErrorHandler peerError;
};

} // namespace Dovel
