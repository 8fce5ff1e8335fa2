// Growing a byte array that is being filled, such as a bundle being written or a name
// being appended to one, several times for every attribute of a large pass.
// QByteArray::resize is an out-of-line call that weighs every case (shared, raw data,
// shrinking, reallocation); an array held alone, with its room already reserved, only
// needs its size moved and its terminator set, which is what resize itself does then.
// Anything else is left to resize.
//
// Not thread-safe: as the array.
#pragma once

#include <QByteArray>

namespace Basalt {

// Makes `bytes` `n` bytes longer (n >= 0) and returns where they start, for the caller
// to fill.
inline char* growBy(QByteArray& bytes, int n) {
    QByteArray::DataPtr& d = bytes.data_ptr();
    const int old = d->size;
    if (!d->ref.isShared() && d->offset == sizeof(QByteArrayData) &&
        uint(old) + uint(n) + 1u <= d->alloc) {
        d->size = old + n;
        char* const data = static_cast<char*>(d->data());
        data[old + n] = '\0';
        return data + old;
    }
    bytes.resize(old + n);
    return bytes.data() + old;
}

} // namespace Basalt
