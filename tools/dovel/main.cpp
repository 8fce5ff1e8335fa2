// dovel: the command-line face of the library. Each command lives in its own unit;
// this file only picks one by its first word.
#include "Access.h"
#include "BenchCommand.h"
#include "CommandLine.h"
#include "Demo.h"
#include "FilesCommand.h"
#include "PathCommands.h"
#include "SessionCommands.h"

#include "Dovel/Version.h"

#include "Basalt/Trace.h"

#include <QCoreApplication>

#include <cstdio>

#ifdef __GLIBC__
#include <malloc.h>
#endif

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

const char Footer[] =
    "\n"
    "Addresses are HOST:PORT, as 127.0.0.1:5000. Trees and values are JSON in the\n"
    "tree-file format (dovel(1), docs/tree-format.md). `dovel COMMAND --help`\n"
    "describes a command's options.\n"
    "\n"
    "Options (with any command):\n"
    "  -h, --help              show this help and exit\n"
    "  --version               show the version and exit\n"
    "  -v, --verbose           also print the library's log lines on standard error\n"
    "                          (-vv: with debug lines); DOVEL_LOG=debug|info|warning|\n"
    "                          error|off sets their level instead\n"
    "\n"
    "Exit status: 0 done, 1 failed (one line on standard error says why), 2 usage\n"
    "error.\n";

// Takes -v, -vv and --verbose out of the words, wherever they stand, and sets how much
// of the library's log reaches standard error: nothing unless asked (the tool says what
// matters in its own lines), or what DOVEL_LOG says when set.
QStringList takeVerbosity(const QStringList& words) {
    int verbosity = 0;
    QStringList rest;
    for (const QString& word : words) {
        if (word == QLatin1String("-v") || word == QLatin1String("--verbose"))
            verbosity = qMax(verbosity, 1);
        else if (word == QLatin1String("-vv"))
            verbosity = 2;
        else
            rest.append(word);
    }
    if (verbosity > 0)
        Basalt::Trace::setThreshold(verbosity > 1 ? Basalt::Trace::Debug : Basalt::Trace::Info);
    else if (!qEnvironmentVariableIsSet("DOVEL_LOG"))
        Basalt::Trace::setThreshold(Basalt::Trace::Off);
    return rest;
}

} // namespace

int main(int argc, char** argv) {
#ifdef __GLIBC__
    // One malloc arena for every thread. The tree thread builds a copy of the peer's tree,
    // and in an arena of its own glibc grows the heap a page per mprotect call (about a
    // tenth of a large first copy's time); the main arena grows in large steps. The
    // other threads mostly wait on sockets, so they seldom contend for it.
    mallopt(M_ARENA_MAX, 1);
#endif
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
        {"get", "print the values at paths of a server's tree", DovelTool::runGet},
        {"ls", "list the paths and types of a server's tree", DovelTool::runLs},
        {"rm", "remove attributes or nodes from a server's tree", DovelTool::runRm},
        {"files", "mirror a folder of files (files serve DIR | files pull HOST:PORT DIR)",
         DovelTool::runFilesCommand},
        {"bench", "measure a server and its clients on loopback (bench WORKLOAD)",
         DovelTool::runBench},
        {"keygen", "print a new random login key for --key-file", DovelTool::runKeygen},
    };

    const QStringList words = takeVerbosity(app.arguments().mid(1));
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
