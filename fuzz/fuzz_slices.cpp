// Sliced events from peers, reassembled by RemoteNode::handleRemoteEvent: interleaved
// "event-slice-begin" and "event-slice" events of several senders, well-formed ones
// built from the input and raw payloads taken from it, with plain events between.
// Input: records of [op][sender][length][length payload bytes]; op bits 0-1 pick a
// well-formed begin, a well-formed slice, or a raw payload under the name op bits 2-3
// choose. A delivered event's bytes are read whole (a freed or short buffer shows under
// AddressSanitizer), and the node never holds more records than its limit.
#include "Dovel/Limits.h"
#include "Dovel/sync/RemoteNode.h"
#include "FuzzSupport.h"

#include "Basalt/BinaryData.h"

#include <QByteArray>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

void check(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "fuzz_slices: %s\n", what);
        std::abort();
    }
}

class Node : public Dovel::RemoteNode {
public:
    Node() : RemoteNode(nullptr, "fuzz") {}

    void eventProcess(const QByteArray& name, Basalt::BinaryData& data) override {
        if (handlingRemoteEvent(name, data)) {
            check(data.size() >= 0 && data.size() <= Dovel::Limits::MaxSlicedEventBytes,
                  "delivered event too large");
            unsigned sum = 0;
            for (int i = 0; i < data.size(); ++i)
                sum += uint8_t(data.constData()[i]);
            checksum += sum;
            ++delivered;
        }
        RemoteNode::eventProcess(name, data);
    }

    unsigned checksum = 0;
    int delivered = 0;
};

const long senders[] = {0, 1, 2, -1, long(1) << 33, LONG_MAX};
const char* const names[] = {"event-slice-begin", "event-slice", "initialized", "note"};

int u16(const QByteArray& bytes, int at) {
    return at + 1 < bytes.size() ? (uint8_t(bytes[at]) | uint8_t(bytes[at + 1]) << 8) : 0;
}

int byteAt(const QByteArray& bytes, int at) {
    return at < bytes.size() ? uint8_t(bytes[at]) : 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzSupport::silenceLog();

    Node node;
    size_t at = 0;
    while (at + 3 <= size) {
        const uint8_t op = data[at];
        const long sender = senders[data[at + 1] % (sizeof senders / sizeof senders[0])];
        const size_t length = std::min<size_t>(data[at + 2], size - at - 3);
        const QByteArray payload(reinterpret_cast<const char*>(data + at + 3), int(length));
        at += 3 + length;

        Basalt::BinaryData event;
        QByteArray name;
        switch (op & 3) {
        case 0: // id, name, slice size, total
            name = "event-slice-begin";
            event.writeInt32(byteAt(payload, 0) % 8);
            event.write(QByteArray("ev") + char('a' + (op >> 2) % 4));
            event.writeInt32(u16(payload, 1) - 8);
            event.writeInt64(int64_t(u16(payload, 3)) << (byteAt(payload, 5) % 12));
            break;
        case 1: // id, index, the blob
            name = "event-slice";
            event.writeInt32(byteAt(payload, 0) % 8);
            event.writeInt32(int8_t(byteAt(payload, 1)));
            event.writeBlob(payload.constData() + std::min(2, payload.size()),
                            std::max(0, payload.size() - 2));
            break;
        default:
            name = names[(op >> 2) % 4];
            event = Basalt::BinaryData::fromByteArray(payload);
            break;
        }
        node.handleRemoteEvent(name, event, sender);
        check(node.sliceReassemblyCount() <= Dovel::Limits::MaxSliceReassemblies,
              "too many reassemblies held");
    }
    return 0;
}
