// The reading side of the binary session: called by a connection's parse() for every
// incoming line, it recognises "dovel2 N", reads the N bundles that follow the line and
// hands the batch to the session's controller. Runs on the connection's own thread.
#pragma once

#include <QString>

#include <memory>

namespace Dovel {

class BundleController;
class ConnectionThread;

// False when the line is not a "dovel2 N" line. True once it was: the batch is then
// scheduled on `controller` (when there is one), or dropped when a read failed, which
// has ended the connection. A count above Limits::MaxBundlesPerBatch or a header
// announcing more than Limits::MaxBundlePayloadBytes ends the connection before
// anything is set aside for it.
bool processDovel2(std::shared_ptr<BundleController> controller, ConnectionThread& connection,
                   const QString& line);

} // namespace Dovel
