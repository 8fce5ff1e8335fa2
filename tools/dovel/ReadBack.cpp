#include "ReadBack.h"

#include "MirrorClient.h"
#include "TreeJson.h"

#include "Dovel/sync/RemoteNode.h"

#include <QElapsedTimer>
#include <QThread>

namespace DovelTool {

namespace {

// How often the observer's copy is compared again.
constexpr unsigned long ComparePauseMs = 20;

} // namespace

QString firstDifference(Tessel::Node& root, const std::vector<Expectation>& expected,
                        const TreeJson& json, const QString& holder) {
    for (const Expectation& one : expected) {
        const QString path = QString::fromUtf8(one.path);
        Tessel::Attribute* at = Dovel::attributeAt(root, one.path);
        QJsonValue held;
        if (!at || !json.toJson(*at, held))
            return QStringLiteral("%1: %2 did not take it").arg(path, holder);
        if (held != one.value)
            return QStringLiteral("%1: %2 holds %3")
                .arg(path, holder, QString::fromUtf8(TreeJson::valueText(held)));
    }
    return QString();
}

bool waitServerHolds(const ClientTarget& target, MirrorClient& writer,
                     const std::vector<Expectation>& expected, int ms, QString& error) {
    QElapsedTimer timer;
    timer.start();
    MirrorClient check(target.key, true);
    check.connectToHost(target.host, target.port);
    if (!check.waitInitialState(ms)) {
        error = QStringLiteral("sent, but %1 could not be read back (%2)")
                    .arg(target.address(), check.failureReason());
        return false;
    }
    const TreeJson json;
    QString refused;
    for (;;) {
        check.driver().call(
            [&] { error = firstDifference(check.node(), expected, json, target.address()); });
        if (error.isEmpty())
            return true;
        writer.driver().call([&] {
            refused = firstDifference(writer.node(), expected, json, QStringLiteral("the server"));
        });
        if (!refused.isEmpty()) {
            error = refused + QStringLiteral(" (it refused the change)");
            return false;
        }
        if (timer.elapsed() >= ms)
            return false;
        QThread::msleep(ComparePauseMs);
    }
}

int changeAndConfirm(const ClientTarget& target, const TreeChange& change) {
    MirrorClient mirror(target.key);
    mirror.connectToHost(target.host, target.port);
    const int ms = target.milliseconds();
    if (!mirror.waitInitialState(ms))
        return noSession(target, mirror);
    QString error;
    int refused = -1;
    uint64_t sentBefore = 0;
    std::vector<Expectation> expected;
    mirror.driver().call([&] {
        sentBefore = mirror.batchesSent();
        refused = change(mirror.node(), expected, error);
    });
    if (refused >= 0) {
        mirror.stop();
        return CommandLine::fail(refused, error);
    }
    QElapsedTimer clock;
    clock.start();
    if (!mirror.waitWritten(sentBefore, ms)) {
        mirror.stop();
        return CommandLine::fail(
            CommandLine::Failure,
            QStringLiteral("the connection to %1 ended before the change was sent")
                .arg(target.address()));
    }
    const bool held = waitServerHolds(target, mirror, expected,
                                      int(qMax<qint64>(0, ms - clock.elapsed())), error);
    mirror.stop();
    return held ? CommandLine::Success : CommandLine::fail(CommandLine::Failure, error);
}

} // namespace DovelTool
