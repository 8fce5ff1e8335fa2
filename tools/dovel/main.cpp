// dovel: the command-line face of the library.
#include "Demo.h"
#include "FilesCommand.h"

#include "Dovel/Version.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTextStream>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("dovel");
    QCoreApplication::setApplicationVersion(QString::fromLatin1(Dovel::version()));
    if (argc > 1 && QByteArray(argv[1]) == "files")
        return DovelTool::runFilesCommand(app.arguments().mid(2));

    QCommandLineParser parser;
    parser.setApplicationDescription("Keeps a tree of attributes in step between processes.");
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addPositionalArgument("command", "demo: a server and a client on loopback, in one "
                                            "process, opening a session.");
    QCommandLineOption timeout("timeout", "Give up after SECONDS (demo).", "SECONDS", "10");
    parser.addOption(timeout);
    parser.process(app);

    const QStringList args = parser.positionalArguments();
    QTextStream out(stdout);
    if (args.isEmpty()) {
        parser.showHelp(2);
    }
    if (args.first() == QLatin1String("demo")) {
        bool ok = false;
        const double seconds = parser.value(timeout).toDouble(&ok);
        if (!ok || seconds <= 0) {
            QTextStream(stderr) << "dovel: --timeout takes a positive number of seconds\n";
            return 2;
        }
        return DovelTool::runDemo(out, int(seconds * 1000));
    }
    QTextStream(stderr) << "dovel: unknown command '" << args.first() << "'\n";
    return 2;
}
