#include "Access.h"

#include "Dovel/transport/NetworkList.h"

#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace DovelTool {

namespace {

// Longer files are not keys: a misnamed file is refused before it is read whole.
constexpr qint64 MaxKeyFileBytes = 4096;

bool readCount(const CommandLine& line, const QString& option, int& out, QString& error) {
    if (!line.isSet(option))
        return true;
    bool ok = false;
    const QString text = line.value(option);
    const int number = text.toInt(&ok);
    if (!ok || number < 1 || number > 1000000) {
        error = line.usageLine(
            QStringLiteral("--%1 takes a number from 1 to 1000000, not '%2'").arg(option, text));
        return false;
    }
    out = number;
    return true;
}

void addAdmissionOptions(CommandLine& line) {
    line.addOption(QStringLiteral("allow"), QStringLiteral("CIDR[,CIDR...]"),
                   QStringLiteral("take connections only from these IPv4 networks (as "
                                  "10.0.0.0/8 or 192.168.1.7); others are closed at once"));
    line.addOption(QStringLiteral("max-clients"), QStringLiteral("N"),
                   QStringLiteral("serve at most N clients at once (default 256)"));
    line.addOption(QStringLiteral("max-per-address"), QStringLiteral("N"),
                   QStringLiteral("serve at most N clients from one address (default 64)"));
}

// The admission rules of the options; false with `error` set (a usage error).
bool readAdmission(const CommandLine& line, Dovel::AdmissionRules& rules, QString& error) {
    if (line.isSet(QStringLiteral("allow"))) {
        QString problem;
        if (!Dovel::NetworkList::parse(line.value(QStringLiteral("allow")), rules.allowed,
                                       problem)) {
            error = line.usageLine(QStringLiteral("--allow: %1").arg(problem));
            return false;
        }
    }
    return readCount(line, QStringLiteral("max-clients"), rules.maxClients, error) &&
           readCount(line, QStringLiteral("max-per-address"), rules.maxClientsPerAddress, error);
}

} // namespace

void addKeyOption(CommandLine& line) {
    line.addOption(QStringLiteral("key-file"), QStringLiteral("FILE"),
                   QStringLiteral("log in with the secret key in FILE (readable by you alone; "
                                  "`dovel keygen > FILE` makes one), the same on every side; "
                                  "default: $DOVEL_KEY_FILE, else the protocol's well-known key"));
}

bool readLoginKey(const CommandLine& line, QByteArray& key, QString& error) {
    key.clear();
    QString path = line.value(QStringLiteral("key-file"));
    if (path.isEmpty())
        path = QString::fromLocal8Bit(qgetenv("DOVEL_KEY_FILE"));
    if (path.isEmpty())
        return true;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        error = QStringLiteral("cannot read the key file %1: %2").arg(path, file.errorString());
        return false;
    }
    struct stat status;
    if (::fstat(file.handle(), &status) != 0 || !S_ISREG(status.st_mode)) {
        error = QStringLiteral("the key file %1 is not a file").arg(path);
        return false;
    }
    if ((status.st_mode & (S_IRGRP | S_IROTH)) != 0) {
        error = QStringLiteral("the key file %1 can be read by other users; make it yours alone "
                               "(chmod 600 %1)")
                    .arg(path);
        return false;
    }
    if (status.st_size > MaxKeyFileBytes) {
        error = QStringLiteral("the key file %1 is too long for a key (at most %2 bytes)")
                    .arg(path)
                    .arg(MaxKeyFileBytes);
        return false;
    }
    key = file.read(MaxKeyFileBytes + 1).trimmed();
    if (key.isEmpty()) {
        error = QStringLiteral("the key file %1 holds no key").arg(path);
        return false;
    }
    return true;
}

void addServerOptions(CommandLine& line) {
    line.addOption(QStringLiteral("listen"), QStringLiteral("[HOST:]PORT"),
                   QStringLiteral("address to listen on (default 127.0.0.1:5000, this machine "
                                  "only; PORT alone stays on it; 0.0.0.0:PORT takes every "
                                  "network; port 0 picks a free port)"));
    addKeyOption(line);
    addAdmissionOptions(line);
}

int readServerOptions(const CommandLine& line, ServerSettings& out) {
    QString error;
    if (line.isSet(QStringLiteral("listen")) &&
        !CommandLine::parseListen(line.value(QStringLiteral("listen")), out.host, out.port, error))
        return CommandLine::fail(CommandLine::UsageError, line.usageLine(error));
    if (!readAdmission(line, out.admission, error))
        return CommandLine::fail(CommandLine::UsageError, error);
    if (!readLoginKey(line, out.key, error))
        return CommandLine::fail(CommandLine::Failure, error);
    return -1;
}

void warnIfOpen(const QString& host, bool keyGiven, const QString& what) {
    if (keyGiven || Dovel::NetworkList::isLoopback(host))
        return;
    CommandLine::note(QStringLiteral("warning: listening on %1 with the well-known default key: "
                                     "anyone who can reach the port can %2 (give --key-file)")
                          .arg(host, what));
}

void raiseDescriptorLimit() {
    rlimit limit;
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

int runKeygen(const QStringList& args) {
    CommandLine line(QStringLiteral("keygen"), QString(),
                     QStringLiteral("Prints a new random login key: 64 hexadecimal digits and a "
                                    "newline. When\nstandard output is a file, the file is made "
                                    "readable by you alone. Use it as\n"
                                    "  dovel keygen > key && dovel serve --key-file key"));
    const int parsed = line.parseOrExit(args, 0, 0);
    if (parsed >= 0)
        return parsed;
    QByteArray bytes(32, '\0');
    QRandomGenerator::system()->fillRange(reinterpret_cast<quint32*>(bytes.data()),
                                          bytes.size() / int(sizeof(quint32)));
    struct stat status;
    if (::fstat(STDOUT_FILENO, &status) == 0 && S_ISREG(status.st_mode) &&
        status.st_uid == ::geteuid())
        ::fchmod(STDOUT_FILENO, S_IRUSR | S_IWUSR);
    CommandLine::print(bytes.toHex() + '\n');
    return CommandLine::Success;
}

} // namespace DovelTool
