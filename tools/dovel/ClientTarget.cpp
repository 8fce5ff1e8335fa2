#include "ClientTarget.h"

#include "Access.h"
#include "MirrorClient.h"

namespace DovelTool {

void addClientOptions(CommandLine& line, const QString& timeoutHelp) {
    line.addOption(QStringLiteral("timeout"), QStringLiteral("SECONDS"),
                   timeoutHelp.isEmpty()
                       ? QStringLiteral("give up when no session is running after SECONDS "
                                        "(default 10)")
                       : timeoutHelp);
    addKeyOption(line);
}

int readClientTarget(const CommandLine& line, ClientTarget& target) {
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
    if (!readLoginKey(line, target.key, error))
        return CommandLine::fail(CommandLine::Failure, error);
    return -1;
}

int noSession(const ClientTarget& target, const MirrorClient& mirror) {
    if (mirror.hasFailed())
        return CommandLine::fail(
            CommandLine::Failure,
            QStringLiteral("%1: %2").arg(target.address(), mirror.failureReason()));
    return CommandLine::fail(CommandLine::Failure,
                             QStringLiteral("no session with %1 within %2 s (%3)")
                                 .arg(target.address(), QString::number(target.seconds, 'g', 6),
                                      mirror.failureReason()));
}

} // namespace DovelTool
