// The reading side of the binary session: called by a handler's parse() for every
// incoming line, it recognises "dovel2 N", reads the N bundles that follow the line and
// hands the batch to the session's controller. Runs on the connection's own thread.
#pragma once

#include <QString>

#include <functional>
#include <memory>
#include <vector>

namespace Dovel {

class Bundle;
class BundleController;
class ConnectionLink;

// False when the line is not a "dovel2 N" line. True once it was: the batch is then
// scheduled on `controller` (when there is one); when a read fails, which ends the
// connection, what was not yet scheduled of it is dropped. A count above Limits::MaxBundlesPerBatch
// or a header announcing more than Limits::MaxBundlePayloadBytes ends the connection before
// anything is set aside for it. A large batch is scheduled in pieces as it arrives;
// while more than Limits::MaxUnappliedBatchBytes of received batches wait for the tree
// thread, reading stops (the call does not return) until they do not or the connection
// ends: the peer is slowed by TCP while this side keeps it from timing out.
bool processDovel2(std::shared_ptr<BundleController> controller, ConnectionLink& connection,
                   const QString& line);
// The same framing for a connection that handles its bundles itself, on its own thread:
// `consume` gets each piece of the batch in order, as it arrives.
bool processDovel2(const std::function<void(const std::vector<Bundle>&)>& consume,
                   ConnectionLink& connection, const QString& line);

} // namespace Dovel
