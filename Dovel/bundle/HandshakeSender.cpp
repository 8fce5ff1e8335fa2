#include "Dovel/bundle/HandshakeSender.h"

#include "Dovel/Version.h"

namespace Dovel {

HandshakeSender::HandshakeSender() {
    const uint32_t start = writer.beginSection();
    writer.writeString(QStringLiteral("info"));
    writeMap({{QStringLiteral("application"), QStringLiteral("Dovel")},
              {QStringLiteral("version"), QString::fromUtf8(version())}});
    writer.endSection(start);
}

HandshakeSender::~HandshakeSender() = default;

uint32_t HandshakeSender::requestModule(const QString& name) {
    const uint32_t number = nextMessageType++;
    const uint32_t start = writer.beginSection();
    writer.writeString(QStringLiteral("load-module"));
    writer.writeUInt32(number);
    writer.writeString(name);
    writeMap(Map());
    writer.endSection(start);
    return number;
}

void HandshakeSender::replyOk(const QString& command, const QString& module,
                              const QString& description) {
    reply(QStringLiteral("ok"), command, module, description);
}

void HandshakeSender::replyError(const QString& command, const QString& module,
                                 const QString& description) {
    reply(QStringLiteral("error"), command, module, description);
}

void HandshakeSender::reply(const QString& verb, const QString& command, const QString& module,
                            const QString& description) {
    const uint32_t start = writer.beginSection();
    writer.writeString(verb);
    writer.writeString(command);
    writer.writeString(module);
    writeMap({{QStringLiteral("description"), description}});
    writer.endSection(start);
}

// A u32 count, then key and value strings in ascending key order.
void HandshakeSender::writeMap(const Map& map) {
    writer.writeUInt32(uint32_t(map.size()));
    for (auto it = map.constBegin(); it != map.constEnd(); ++it) {
        writer.writeString(it.key());
        writer.writeString(it.value());
    }
}

void HandshakeSender::writeUpdates(BundleOutput& output) {
    output.finish(bundle, 0);
}

} // namespace Dovel
