#include "Dovel/bundle/HandshakeReceiver.h"

#include "Dovel/bundle/BundleDispatcher.h"
#include "Dovel/bundle/ModuleNames.h"

#include "Basalt/Trace.h"

#include <QStringList>

#include <stdexcept>

namespace Dovel {

namespace {

using Map = QMap<QString, QString>;

// A u32 count, then that many key and value strings; a later key replaces an earlier
// one. Each pair takes at least 8 bytes, so a huge count ends at the bundle's end.
Map readMap(BundleReaderCore& reader) {
    Map map;
    const uint32_t count = reader.readUInt32();
    for (uint32_t i = 0; i < count; ++i) {
        const QString key = reader.readString();
        map.insert(key, reader.readString());
    }
    return map;
}

QString renderMap(const Map& map) {
    QStringList parts;
    for (auto it = map.constBegin(); it != map.constEnd(); ++it)
        parts << QStringLiteral("%1: %2").arg(it.key(), it.value());
    return parts.join(QStringLiteral(", "));
}

} // namespace

HandshakeReceiver::HandshakeReceiver(BundleDispatcher* dispatcher)
    : BundleReceiver(ModuleNames::Handshake), dispatcher(dispatcher) {}

HandshakeReceiver::~HandshakeReceiver() = default;

void HandshakeReceiver::handleBundle(BundleReader& reader) {
    while (!reader.atEnd()) {
        const uint32_t length = reader.readUInt32();
        const uint32_t start = reader.pos();
        const QString command = reader.readString();

        if (command == QLatin1String("info")) {
            readMap(reader); // introduces the peer; nothing here acts on it
        } else if (command == QLatin1String("load-module")) {
            const uint32_t number = reader.readUInt32();
            const QString module = reader.readString();
            const Map params = readMap(reader);
            dispatcher->loadModule(number, module, params);
        } else if (command == QLatin1String("error")) {
            const QString answered = reader.readString();
            const QString module = reader.readString();
            const Map info = readMap(reader);
            Basalt::Trace::error(
                "HandshakeReceiver::handleBundle # error, command: %s, module: %s, additional "
                "info: %s",
                answered.toUtf8().constData(), module.toUtf8().constData(),
                renderMap(info).toUtf8().constData());
            dispatcher->peerReportedError(answered, module);
        } else if (command == QLatin1String("ok")) {
            reader.readString();
            reader.readString();
            readMap(reader);
        } else {
            Basalt::Trace::warning("HandshakeReceiver::handleBundle # Unknown command '%s'",
                                   command.toUtf8().constData());
            const uint32_t consumed = reader.pos() - start;
            if (consumed > length)
                throw std::out_of_range("HandshakeReceiver::handleBundle # Corrupted message");
            reader.read(length - consumed);
        }
    }
}

} // namespace Dovel
