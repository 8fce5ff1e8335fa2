// dovel: the command-line face of the library. Each command lives in its own unit;
// this file only picks one by its first word.
#include "Access.h"
#include "BenchCommand.h"
#include "CommandLine.h"
#include "Demo.h"
#include "FilesCommand.h"
#include "SessionCommands.h"

#include "Dovel/Version.h"

#include <QCoreApplication>

#include <cstdio>

#include <functional>

namespace {

struct Command {
    const char* name;
    const char* summary;
    std::function<int(const QStringList&)> run;
};

const char Overview[] =
    "usage: dovel COMMAND [OPTIONS]\n"
    "\n"
    "Keeps a tree of typed attributes identical in several processes over TCP.\n"
    "\n"
    "Commands:\n";

const char Footer[] = "\n"
                      "Addresses are HOST:PORT, as 127.0.0.1:5000. Trees and values are JSON in "
                      "the\ntree-file format (docs/tree-format.md). `dovel COMMAND --help` "
                      "describes a\ncommand's options.\n"
                      "\n"
                      "Options:\n"
                      "  -h, --help              show this help and exit\n"
                      "  --version               show the version and exit\n";

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("dovel");
    QCoreApplication::setApplicationVersion(QString::fromLatin1(Dovel::version()));

    // A new command adds one row here and its own unit.
    const Command commands[] = {
        {"demo",
         "a server and a client in this process share an animated tree for a few "
         "seconds",
         DovelTool::runDemoCommand},
        {"serve", "share a tree (from a JSON file, or empty) until stopped", DovelTool::runServe},
        {"dump", "print a server's tree as JSON", DovelTool::runDump},
        {"set", "set attributes of a server's tree: PATH=VALUE...", DovelTool::runSet},
        {"watch", "print every change of a server's tree as it comes", DovelTool::runWatch},
        {"files", "mirror a folder of files (files serve DIR | files pull HOST:PORT DIR)",
         DovelTool::runFilesCommand},
        {"bench", "measure a server and its clients on loopback (bench WORKLOAD)",
         DovelTool::runBench},
        {"keygen", "print a new random login key for --key-file", DovelTool::runKeygen},
    };

    const QStringList words = app.arguments().mid(1);
    const QString first = words.value(0);
    if (first.isEmpty() || first == QLatin1String("--help") || first == QLatin1String("-h")) {
        QByteArray text = Overview;
        for (const Command& command : commands)
            text += QByteArray("  ") + QByteArray(command.name).leftJustified(8) + command.summary +
                    '\n';
        text += Footer;
        if (first.isEmpty()) {
            std::fputs(text.constData(), stderr);
            return DovelTool::CommandLine::UsageError;
        }
        DovelTool::CommandLine::print(text);
        return DovelTool::CommandLine::Success;
    }
    if (first == QLatin1String("--version")) {
        DovelTool::CommandLine::print(QByteArray("dovel ") + Dovel::version() + '\n');
        return DovelTool::CommandLine::Success;
    }
    for (const Command& command : commands)
        if (first == QLatin1String(command.name))
            return command.run(words.mid(1));
    if (first.startsWith(QLatin1Char('-')))
        return DovelTool::CommandLine::fail(
            DovelTool::CommandLine::UsageError,
            QStringLiteral("unknown option '%1' (see dovel --help)").arg(first));
    return DovelTool::CommandLine::fail(
        DovelTool::CommandLine::UsageError,
        QStringLiteral("unknown command '%1' (see dovel --help)").arg(first));
}
