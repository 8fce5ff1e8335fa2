// Tree files: the input is a JSON document handed to the dovel tool's loader. What loads
// is dumped, and the dump must load again and dump to the same bytes (the format
// round-trips its own output); a difference aborts. Errors are expected and ignored.
#include "FuzzSupport.h"
#include "dovel/TreeJson.h"

#include "Tessel/Node.h"

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzSupport::silenceLog();
    static const DovelTool::TreeJson format;

    const QByteArray input(reinterpret_cast<const char*>(data), int(size));
    Tessel::Node root;
    QString error;
    if (!format.load(input, root, &error)) {
        if (error.isEmpty())
            std::abort(); // every refusal says why
        return 0;
    }
    const QByteArray dumped = format.dumpBytes(root, QJsonDocument::Compact);
    Tessel::Node again;
    if (!format.load(dumped, again, &error)) {
        std::fprintf(stderr, "the dump does not load: %s\n%s\n", qPrintable(error),
                     dumped.constData());
        std::abort();
    }
    const QByteArray redumped = format.dumpBytes(again, QJsonDocument::Compact);
    if (redumped != dumped) {
        std::fprintf(stderr, "the dump changed on reloading:\n%s\n%s\n", dumped.constData(),
                     redumped.constData());
        std::abort();
    }
    return 0;
}
