// The sending half of the handshake module (message type 0): queues the session's
// commands ("info", "load-module", "ok", "error") into one pending bundle that the next
// output pass emits. Created and owned by the dispatcher; lives on the session's thread.
#pragma once

#include "Dovel/bundle/Bundle.h"
#include "Dovel/bundle/BundleSender.h"
#include "Dovel/bundle/BundleWriter.h"

#include <QMap>
#include <QString>

#include <cstdint>

namespace Dovel {

class HandshakeSender : public BundleSender {
public:
    // Queues "info" {"application": "Dovel", "version": <library version>}.
    HandshakeSender();
    ~HandshakeSender() override;

    // Queues "load-module" for `name` with the next number of this side and an empty
    // map; returns the number (1, 2, ... in order of the requests).
    uint32_t requestModule(const QString& name);
    // Queue the answer to a peer's command: `command` answered, the module name and
    // the map {"description": description}.
    void replyOk(const QString& command, const QString& module, const QString& description);
    void replyError(const QString& command, const QString& module, const QString& description);

    // Emits every command queued since the last pass as one bundle of type 0.
    void writeUpdates(BundleOutput& output) override;

private:
    using Map = QMap<QString, QString>;

    void reply(const QString& verb, const QString& command, const QString& module,
               const QString& description);
    void writeMap(const Map& map);

    Bundle bundle;
    BundleWriterCore writer{bundle};
    uint32_t nextMessageType = 1;
};

} // namespace Dovel
