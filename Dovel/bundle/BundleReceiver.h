// Base of every module that consumes bundles of one message type. A module is offered
// to the peer under its name and receives bundles once the peer binds the name to a
// number ("load-module"). Lives on the session's thread; never entered concurrently.
#pragma once

#include "Dovel/bundle/BundleReader.h"

#include <QByteArray>
#include <QMap>
#include <QString>

namespace Dovel {

class BundleReceiver {
public:
    virtual ~BundleReceiver();
    BundleReceiver(const BundleReceiver&) = delete;
    BundleReceiver& operator=(const BundleReceiver&) = delete;

    // Consumes one bundle, the reader standing at its first payload byte. Malformed
    // content throws std::invalid_argument, short content std::out_of_range.
    virtual void handleBundle(BundleReader& reader) = 0;
    // Called when the module is bound or re-bound to a number, with the parameters of
    // the peer's "load-module". Does nothing by default.
    virtual void moduleLoaded(const QMap<QString, QString>& params);

    // The module name under which the peer binds this receiver.
    const QByteArray& name() const { return moduleName; }

protected:
    explicit BundleReceiver(const QByteArray& name) : moduleName(name) {}

private:
    const QByteArray moduleName;
};

} // namespace Dovel
