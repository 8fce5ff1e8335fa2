#include "Dovel/transport/MapBlock.h"

#include "Basalt/BinaryData.h"

namespace Dovel::MapBlock {

int blockLength(const QByteArray& lengthItem) {
    if (lengthItem.size() != LengthItemBytes)
        return -1;
    Basalt::BinaryData head = Basalt::BinaryData::fromByteArray(lengthItem);
    bool ok = false;
    const int32_t length = head.readInt32(&ok);
    return ok && length >= LengthItemBytes ? length : -1;
}

bool parseEntries(const QByteArray& body, int count, QMap<QString, QString>& out) {
    out.clear();
    if (count < 0)
        return false;
    Basalt::BinaryData entries = Basalt::BinaryData::fromByteArray(body);
    for (int i = 0; i < count; ++i) {
        QString key;
        QString value;
        if (!entries.readString(key) || !entries.readString(value)) {
            out.clear();
            return false;
        }
        out.insert(out.constEnd(), key, value); // peers send maps in key order
    }
    return true;
}

QByteArray encode(const QMap<QString, QString>& map) {
    Basalt::BinaryData entries;
    for (auto it = map.constBegin(); it != map.constEnd(); ++it) {
        entries.writeString(it.key());
        entries.writeString(it.value());
    }
    Basalt::BinaryData block;
    block.writeInt32(LengthItemBytes + entries.size()); // the length item counts itself
    block.append(entries);
    return block.toByteArray();
}

} // namespace Dovel::MapBlock
