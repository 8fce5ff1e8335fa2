// A Connection over a ConnectionLink (a ConnectionThread, or a test's fake): each batch becomes one
// writer item, the line "dovel2 N\n" followed by the raw bundles, under the writer key "dovel2"; a
// batch of more than Limits::MaxBundlesPerBatch bundles goes as several lines in a row. Holds the
// connection weakly and never keeps it alive. Copyable and movable; send is
// thread-safe (it only appends to the connection's writer).
//
// While more than Limits::BackPressureBytes of batches wait in the writer, holdBack asks
// the session to fold its changes instead of sending them; memory then stays bounded by
// the tree, also for a peer that stops reading but keeps its socket open, which stays
// connected. Batches that still come (events, the passes before the peer's own batches
// are applied) can pile up: once more than `maxUnsentBytes` wait, send ends the
// connection instead (a client then reconnects and starts a fresh session).
#pragma once

#include "Dovel/Limits.h"
#include "Dovel/session/Connection.h"

#include <QByteArray>

#include <cstdint>
#include <memory>

namespace Dovel {

class ConnectionLink;

class Dovel1Connection : public Connection {
public:
    // The writer key of every batch.
    static const QByteArray WriterKey;

    explicit Dovel1Connection(std::weak_ptr<ConnectionLink> connection,
                              int64_t maxUnsentBytes = Limits::MaxUnsentBatchBytes);
    Dovel1Connection(const Dovel1Connection&) = default;
    Dovel1Connection(Dovel1Connection&&) = default;
    Dovel1Connection& operator=(const Dovel1Connection&) = default;
    Dovel1Connection& operator=(Dovel1Connection&&) = default;
    ~Dovel1Connection() override;

    // Nothing for an empty batch, a connection that is gone, or a connected peer that
    // does not take bundles. While not connected the batch is buffered and leaves after
    // the next handshake.
    void send(const std::vector<Bundle>& bundles) override;
    // True while connected and more than Limits::BackPressureBytes wait in the writer;
    // the writer calls `wake` once it has taken the queue down to that.
    bool holdBack(const std::function<void()>& wake) override;

private:
    std::weak_ptr<ConnectionLink> connection;
    int64_t maxUnsentBytes;
};

} // namespace Dovel
