// Receives the progress texts of a file-list build ("Scanning directory tree...",
// "Generated checksums: N", ...). Called on the thread that builds the list; an
// implementation that shares its state with other threads guards it itself.
#pragma once

#include <QString>

namespace Dovel {

class ProgressSender {
public:
    virtual ~ProgressSender();
    virtual void transferInfo(const QString& text);
};

} // namespace Dovel
