// QByteArray::isNull without a call: Qt 5 defines it out of line, and the tables of names
// ask it of every name they touch (a name cache's ways, a map's empty slots), several
// times per attribute of a large copy. A byte array is null when it shares Qt's null
// data, which is what isNull itself compares.
//
// Thread-safe: reads the array's data pointer only.
#pragma once

#include <QByteArray>

namespace Basalt {

inline bool isNull(const QByteArray& bytes) {
    return const_cast<QByteArray&>(bytes).data_ptr() == QByteArrayData::sharedNull();
}

} // namespace Basalt
