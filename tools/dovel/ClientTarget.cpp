#include "ClientTarget.h"

#include "Access.h"
#include "MirrorClient.h"

namespace DovelTool {

int parseClientCommand(CommandLine& line, const QStringList& words, ClientTarget& target,
                       int minPositional, int maxPositional, const QString& missing,
                       const QString& timeoutHelp) {
    line.addOption(QStringLiteral("timeout"), QStringLiteral("SECONDS"),
                   timeoutHelp.isEmpty()
                       ? QStringLiteral("give up when no session is running after SECONDS "
                                        "(default 10); a refusal ends it at once")
                       : timeoutHelp);
    addKeyOption(line);
    const int parsed = line.parseOrExit(words, minPositional, maxPositional, missing);
    if (parsed >= 0)
        return parsed;
    QString error;
    if (line.positional().isEmpty())
        return CommandLine::fail(CommandLine::UsageError,
                                 line.usageLine(QStringLiteral("missing HOST:PORT")));
    if (!CommandLine::parseAddress(line.positional().first(), false, target.host, target.port,
                                   error) ||
        (line.isSet(QStringLiteral("timeout")) &&
         !CommandLine::parseSeconds(QStringLiteral("timeout"),
                                    line.value(QStringLiteral("timeout")), target.seconds, error)))
        return CommandLine::fail(CommandLine::UsageError, error);
    target.asked = target.seconds;
    if (!readLoginKey(line, target.key, error))
        return CommandLine::fail(CommandLine::Failure, error);
    return -1;
}

int readServerTree(const ClientTarget& target, const std::function<int(Tessel::Node&)>& read) {
    MirrorClient mirror(target.key, true);
    mirror.connectToHost(target.host, target.port);
    if (!mirror.waitInitialState(target.milliseconds()))
        return noSession(target, mirror);
    int status = CommandLine::Success;
    mirror.driver().call([&] { status = read(mirror.node()); });
    mirror.stop();
    return status;
}

int noSession(const ClientTarget& target, const MirrorClient& mirror) {
    if (mirror.hasFailed())
        return CommandLine::fail(
            CommandLine::Failure,
            QStringLiteral("%1: %2").arg(target.address(), mirror.failureReason()));
    return CommandLine::fail(
        CommandLine::Failure,
        QStringLiteral("no session with %1 within %2 s (%3)")
            .arg(target.address(), QString::number(target.asked, 'g', 6), mirror.failureReason()));
}

} // namespace DovelTool
