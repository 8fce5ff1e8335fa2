// A peer on the line protocol, against the server side or the client side of a
// ConnectionThread over a real loopback connection: the greeting, version and login
// exchange (raw, or done properly by the peer so that the rest reaches the reading
// loop), ping and pong, and lines that a handler frames as a protocol would: maps in
// the peer's version's form, raw data and skipped bytes. The mode byte is described in
// LinePeer.h; the rest is what the peer writes. Nothing may escape or leak, and every
// iteration must end by itself once the peer's bytes are exhausted.
#include "FuzzSupport.h"
#include "LinePeer.h"

#include "Dovel/transport/ConnectionThread.h"

#include <QStringList>

#include <cstdint>
#include <memory>

namespace {

// Frames what follows some lines the way the connections built on the line protocol do:
//   map COUNT    a map of COUNT entries follows (readMap), in the peer's version's form
//   data COUNT   COUNT raw bytes follow (readData)
//   skip COUNT   COUNT bytes to discard follow (skip)
class FramingHandler : public Dovel::ConnectionHandler {
public:
    using ConnectionHandler::ConnectionHandler;

    bool parse(const QString& line) override {
        const QStringList words = line.split(QLatin1Char(' '));
        bool ok = false;
        const int count = words.size() == 2 ? words[1].toInt(&ok) : 0;
        if (!ok)
            return false;
        if (words[0] == QLatin1String("map"))
            link().readMap(count);
        else if (words[0] == QLatin1String("data"))
            link().readData(count);
        else if (words[0] == QLatin1String("skip"))
            link().skip(count);
        else
            return false;
        return true;
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzSupport::silenceLog();
    if (size == 0)
        return 0;
    const LinePeer::Mode mode = LinePeer::decodeMode(data[0]);
    const QByteArray stream(reinterpret_cast<const char*>(data + 1), int(size - 1));
    LinePeer::run(mode, stream, [](Basalt::TCPSocket* socket, bool serverSide) {
        auto connection = Dovel::ConnectionThread::create<FramingHandler>(socket, serverSide);
        connection->setKeepRetrying(false);
        return connection;
    });
    return 0;
}
