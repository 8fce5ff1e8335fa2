#include "TreeSaver.h"

#include "CommandLine.h"

#include <QFileInfo>
#include <QSaveFile>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace DovelTool {

TreeSaver::TreeSaver(Dovel::RemoteNode& root, Dovel::SessionDriver& driver, QString file)
    : root(root), driver(driver), file(std::move(file)) {
    driver.call([this, flag = changed] {
        listenerId = this->root.addAttributeChangeListener(
            [flag](const Dovel::NodeWatcher::Event&) { flag->store(true); });
    });
}

TreeSaver::~TreeSaver() {
    driver.call([this] { root.removeAttributeChangeListener(listenerId); });
}

bool TreeSaver::saveIfChanged() {
    if (!changed->exchange(false))
        return true;
    QByteArray document;
    driver.call([&] { document = json.dumpBytes(root); });
    if (write(document)) {
        error.clear();
        return true;
    }
    changed->store(true); // kept for the next try
    return false;
}

bool TreeSaver::write(const QByteArray& document) {
    QSaveFile out(file);
    bool ok = out.open(QIODevice::WriteOnly) && out.write(document) == document.size() &&
              out.flush() && ::fsync(out.handle()) == 0;
    int reason = ok ? 0 : errno;
    if (ok && !out.commit()) {
        ok = false;
        reason = errno;
    }
    if (ok) {
        // The rename lasts only once the folder that holds it is on disk too.
        const int folder = ::open(QFile::encodeName(QFileInfo(file).absolutePath()).constData(),
                                  O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (folder >= 0) {
            ::fsync(folder);
            ::close(folder);
        }
        return true;
    }
    // Qt's text where it has one (it knows which step failed), else the system's.
    QString why = out.errorString();
    if ((why.isEmpty() || why == QLatin1String("Unknown error")) && reason != 0)
        why = QString::fromLocal8Bit(std::strerror(reason));
    const QString text = QStringLiteral("cannot save the tree to %1: %2").arg(file, why);
    if (text != error)
        CommandLine::note(text + QStringLiteral(" (the changes are kept; trying again)"));
    error = text;
    return false;
}

} // namespace DovelTool
