// The receiver of "Quillon.Dovel.OneWayEvent": hands each named event of the peer, with
// its data, to the session's handler. Lives on the tree thread; the peer's symbol
// registry outlives it.
#pragma once

#include "Dovel/bundle/BundleReceiver.h"

#include "Basalt/BinaryData.h"

#include <QByteArray>

#include <functional>

namespace Dovel {

class PeerSymbols;
class PeerWriteRules;

class OneWayEventReceiver : public BundleReceiver {
public:
    using Handler = std::function<void(const QByteArray& name, Basalt::BinaryData& data)>;

    explicit OneWayEventReceiver(const PeerSymbols& peerSymbols);
    ~OneWayEventReceiver() override;

    // Without a handler, events are dropped.
    void setHandler(Handler handler) { eventHandler = std::move(handler); }
    void handleBundle(BundleReader& reader) override;
    // What the peer may raise; null (the default): everything. Outlives the receiver.
    void setWriteRules(const PeerWriteRules* rules) { writeRules = rules; }

private:
    const PeerSymbols& peerSymbols;
    Handler eventHandler;
    const PeerWriteRules* writeRules = nullptr;
};

} // namespace Dovel
