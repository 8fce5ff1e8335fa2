// What a folder's list says of each file, and the list itself: plain values that the
// index, the checksum cache and the served list pass around. Values; no thread contract.
#pragma once

#include <QDateTime>
#include <QMap>
#include <QString>

#include <cstdint>

namespace Dovel {

struct FileInfo {
    int64_t size = 0;
    QString md5;            // 32 lowercase hexadecimal digits
    QDateTime lastModified; // in UTC
};

// From file name ("/dir/file", relative to the root) to its description.
using FileList = QMap<QString, FileInfo>;

} // namespace Dovel
