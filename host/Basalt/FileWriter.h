// A guard held around a write of one file: while it lives, other FileWriters of the
// same path in this process wait. Thread-safe.
#pragma once

#include <QString>

namespace Basalt {

class FileWriter {
public:
    explicit FileWriter(const QString& path);
    ~FileWriter();
    FileWriter(const FileWriter&) = delete;
    FileWriter& operator=(const FileWriter&) = delete;

private:
    QString path;
};

} // namespace Basalt
