#include "Dovel/files/FolderPullHandler.h"

#include "Dovel/Limits.h"
#include "Dovel/files/AssetBase.h"
#include "Dovel/files/PathPolicy.h"

#include "Basalt/Trace.h"

#include <algorithm>
#include <limits>
#include <memory>

namespace Dovel {

namespace {

// "SIZE MD5": decimal digits, one blank, 32 lowercase hexadecimal digits. Read by hand:
// a regular expression per entry was a noticeable part of taking a large list.
bool parseDescription(const QString& text, int64_t& size, QString& md5) {
    const int blank = text.indexOf(QLatin1Char(' '));
    if (blank <= 0 || text.size() - blank - 1 != 32)
        return false;
    for (int i = 0; i < blank; ++i)
        if (text.at(i) < QLatin1Char('0') || text.at(i) > QLatin1Char('9'))
            return false;
    for (int i = blank + 1; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (!((c >= QLatin1Char('0') && c <= QLatin1Char('9')) ||
              (c >= QLatin1Char('a') && c <= QLatin1Char('f'))))
            return false;
    }
    bool ok = false;
    size = text.leftRef(blank).toLongLong(&ok);
    md5 = text.mid(blank + 1);
    return ok;
}

} // namespace

FolderPullHandler::FolderPullHandler(ConnectionLink& link, AssetBase& asset, bool deleteExtra,
                                     Owner& owner)
    : FileTransferHandler(link, asset), owner(owner), deleteExtra(deleteExtra) {
    asset.index().leaveLinksAlone(); // a pull writes and removes only the paths names name
}

void FolderPullHandler::fail(const QString& error) {
    Basalt::Guard guard(protocolMutex);
    finish(false, error);
}

// ---- the protocol ----

bool FolderPullHandler::parse(const QString& line) {
    Basalt::Guard guard(protocolMutex);
    if (line.startsWith(QLatin1String("filelist "))) {
        return receiveList(line.mid(9));
    }
    if (line.startsWith(QLatin1String("filelistend "))) {
        receiveListEnd(line.mid(12));
        return true;
    }
    if (line == QLatin1String("filesync")) {
        receiveSync();
        return true;
    }
    if (line.startsWith(QLatin1String("fileskipped "))) {
        // A file of the server's that the protocol cannot carry: the mirror cannot be
        // complete, and the result says which.
        if (uncarried.size() < FolderIndex::MaxUncarriableNames)
            uncarried.append(
                QString::fromUtf8(QByteArray::fromPercentEncoding(line.mid(12).toUtf8())));
        return true;
    }
    // A tree server's first batch: there is no folder to pull here.
    if (line.startsWith(QLatin1String("dovel2 "))) {
        Basalt::Trace::warning("FolderPullHandler::parse # %s:%d serves a tree, not a folder; "
                               "disconnecting",
                               link().hostName().toUtf8().constData(), link().port());
        link().notePeerFailure({PeerFailure::TreeServer, 0, QString()});
        finish(false, describeFailure());
        link().abortConnection();
        return true;
    }
    // A pull only receives: the server has no business reading our files.
    if (line.startsWith(QLatin1String("sendfileinfo ")) ||
        line.startsWith(QLatin1String("sendparts "))) {
        Basalt::Trace::warning("FolderPullHandler::parse # The server %s:%d asked for a file "
                               "of ours ('%s'); a pull sends none, disconnecting",
                               link().hostName().toUtf8().constData(), link().port(),
                               line.section(QLatin1Char(' '), 0, 0).toUtf8().constData());
        finish(false, QStringLiteral("the server asked for our files, which a pull never sends"));
        link().abortConnection();
        return true;
    }
    return FileTransferHandler::parse(line);
}

bool FolderPullHandler::receiveList(const QString& countText) {
    bool ok = false;
    const int count = countText.toInt(&ok);
    if (!ok || count < 0)
        return false;
    if (listDone || int64_t(listEntriesSeen) + count > Limits::MaxFileListEntries) {
        finish(false, QStringLiteral("the server's file list is too long or out of place"));
        return true;
    }
    const std::optional<QMap<QString, QString>> read = link().readMap(count);
    // A name twice makes a map of fewer entries: a list as unreadable as a cut one.
    if (!read || read->size() != count) {
        finish(false, QStringLiteral("the server's file list could not be read"));
        return true;
    }
    const QMap<QString, QString>& map = *read;
    listEntriesSeen += count;
    for (auto it = map.constBegin(); it != map.constEnd(); ++it) {
        int64_t size = 0;
        QString md5;
        const bool described = parseDescription(it.value(), size, md5);
        if (!PathPolicy::isCarriableName(it.key()) || !described) {
            Basalt::Trace::warning("FolderPullHandler::receiveList # Skipping '%s': not a "
                                   "name and description the file protocol can carry",
                                   it.key().toUtf8().constData());
            continue;
        }
        listBytes += Limits::FileListEntryBytes + it.key().toUtf8().size();
        if (listBytes > Limits::MaxFileListBytes) {
            finish(false, QStringLiteral("the server's file list is too large"));
            link().abortConnection();
            return true;
        }
        serverList.insert(serverList.constEnd(), it.key(), Entry{size, md5}); // in name order
    }
    return true;
}

void FolderPullHandler::receiveListEnd(const QString& totalText) {
    bool ok = false;
    const int total = totalText.toInt(&ok);
    if (!ok || total != listEntriesSeen || listDone) {
        finish(false, QStringLiteral("the server's file list is incomplete"));
        return;
    }
    listDone = true;
    if (localListed && !finished && !link().isStopping())
        compareAndRequest();
}

void FolderPullHandler::localListReady(const FileList& list) {
    Basalt::Guard guard(protocolMutex);
    compared = list;
    localListed = true;
    // A stopped pull changes nothing here any more (with --delete it would remove files).
    if (listDone && !finished && !link().isStopping())
        compareAndRequest();
}

void FolderPullHandler::compareAndRequest() {
    const FileList& local = compared;
    requested = true;

    if (deleteExtra) {
        bool any = false;
        for (auto it = local.constBegin(); it != local.constEnd(); ++it) {
            if (!serverList.contains(it.key())) {
                asset().addFileToRemoveQueue(it.key());
                any = true;
            }
        }
        if (any) {
            changedHere = true;
            deleted = asset().drainRemoveQueue();
        }
    }

    for (auto it = serverList.constBegin(); it != serverList.constEnd(); ++it) {
        const auto mine = local.constFind(it.key());
        if (mine != local.constEnd() && mine->size == it->size && mine->md5 == it->md5)
            continue;
        pending.insert(it.key());
        // Sizes are the server's word: the sum stops at the type's top instead of wrapping.
        progressState.bytesToFetch =
            it->size > std::numeric_limits<int64_t>::max() - progressState.bytesToFetch
                ? std::numeric_limits<int64_t>::max()
                : progressState.bytesToFetch + it->size;
        request(it.key());
    }
    progressState.filesToFetch = pending.size();
    changedHere = changedHere || !pending.isEmpty();
    if (pending.isEmpty()) {
        verifyAndFinish();
        return;
    }
    askSync();
    report(QString());
}

void FolderPullHandler::request(const QString& name) {
    requestFileInfo(name);
    closedBy.insert(name, syncsSent + 1);
}

void FolderPullHandler::askSync() {
    link().writeBuffer(QStringLiteral("sendfilesync\n"), QByteArray());
    ++syncsSent;
}

void FolderPullHandler::receiveSync() {
    if (!requested || syncsAnswered == syncsSent) {
        // Only an answer to our "sendfilesync" means anything: before the comparison
        // nothing was asked for, and finishing now would check an unlisted folder.
        Basalt::Trace::warning("FolderPullHandler::receiveSync # 'filesync' that answers no "
                               "request; ignored");
        return;
    }
    ++syncsAnswered;
    // The server answers requests in order: whatever was asked for before this sync and
    // has no description by now was refused or is gone.
    for (auto it = pending.begin(); it != pending.end();) {
        if (announced.contains(*it) || closedBy.value(*it) > syncsAnswered) {
            ++it;
            continue;
        }
        Basalt::Trace::warning("FolderPullHandler::receiveSync # The server did not describe "
                               "'%s'",
                               it->toUtf8().constData());
        failedNames.append(*it);
        ++progressState.filesFetched;
        it = pending.erase(it);
    }
    checkDone();
}

void FolderPullHandler::progress(int64_t bytes, const QString& name) {
    bytesDone += bytes;
    progressState.bytesFetched = bytesDone;
    report(name);
}

bool FolderPullHandler::wantsDownload(const QString& name) {
    return pending.contains(name) && !announced.contains(name);
}

void FolderPullHandler::downloadStarted(const QString& name, int64_t) {
    announced.insert(name);
}

void FolderPullHandler::downloadFinished(const QString& name, bool success) {
    announced.remove(name);
    if (!pending.contains(name))
        return;
    // A file that changed while it was sent, or arrived damaged, is asked for once more.
    if (!success && !retried.contains(name) && link().isLive() && !link().isStopping()) {
        retried.insert(name);
        Basalt::Trace::info("FolderPullHandler::downloadFinished # Asking for '%s' again",
                            name.toUtf8().constData());
        request(name);
        askSync();
        return;
    }
    pending.remove(name);
    ++progressState.filesFetched;
    if (success)
        ++transferred;
    else
        failedNames.append(name);
    report(name);
    checkDone();
}

void FolderPullHandler::report(const QString& name) {
    progressState.current = name;
    owner.pullProgress(progressState);
}

void FolderPullHandler::checkDone() {
    if (listDone && requested && syncsAnswered == syncsSent && pending.isEmpty())
        verifyAndFinish();
}

void FolderPullHandler::verifyAndFinish() {
    // When nothing was fetched or removed, the list just compared is the folder's state.
    const FileList local = changedHere ? asset().buildFileList(nullptr) : compared;
    QSet<QString> failedSet(failedNames.begin(), failedNames.end());
    for (auto it = serverList.constBegin(); it != serverList.constEnd(); ++it) {
        const auto mine = local.constFind(it.key());
        if (mine == local.constEnd() || mine->size != it->size || mine->md5 != it->md5)
            failedSet.insert(it.key());
    }
    if (deleteExtra)
        for (auto it = local.constBegin(); it != local.constEnd(); ++it)
            if (!serverList.contains(it.key()))
                failedSet.insert(it.key());
    failedNames = QStringList(failedSet.begin(), failedSet.end());
    std::sort(failedNames.begin(), failedNames.end());
    finish(failedNames.isEmpty() && uncarried.isEmpty(), QString());
}

void FolderPullHandler::finish(bool success, const QString& error) {
    if (finished)
        return;
    finished = true;
    Result result;
    result.finished = true;
    result.success = success;
    result.error = error;
    result.failed = failedNames;
    result.uncarried = uncarried;
    result.filesChecked = serverList.size();
    result.filesTransferred = transferred;
    result.filesDeleted = deleted;
    result.bytesTransferred = bytesDone;
    owner.pullFinished(result);
    link().stop();
}

// ---- the connection's end ----

void FolderPullHandler::attemptEnded() {
    Basalt::Guard guard(protocolMutex);
    // Whatever was still under way is lost with the connection.
    for (const QString& name : pending)
        failedNames.append(name);
    pending.clear();
    // A pull makes one attempt: a failure recorded is its login's, which says why; a
    // server silent past the limit was left by the writer.
    const double silence = silenceLimitSeconds(link().timeoutSeconds());
    finish(false, link().lastFailure().isSet() ? describeFailure()
                  : link().secondsSinceLastPacket() > silence
                      ? QStringLiteral("%1:%2 sent nothing for %3 s")
                            .arg(link().hostName())
                            .arg(link().port())
                            .arg(silence)
                      : QStringLiteral("the connection ended before the folder was up to date"));
}

void FolderPullHandler::disconnected() {
    Basalt::Guard guard(protocolMutex);
    FileTransferHandler::disconnected();
}

void FolderPullHandler::idle() {
    Basalt::Guard guard(protocolMutex);
    FileTransferHandler::idle();
}

void FolderPullHandler::connectionFailed() {
    Basalt::Guard guard(protocolMutex);
    finish(false, describeFailure());
}

QString FolderPullHandler::describeFailure() const {
    const PeerFailure failure = link().lastFailure();
    if (!failure.isSet())
        return QStringLiteral("cannot connect to %1:%2").arg(link().hostName()).arg(link().port());
    return QStringLiteral("%1:%2: %3")
        .arg(link().hostName())
        .arg(link().port())
        .arg(failure.text());
}

} // namespace Dovel
