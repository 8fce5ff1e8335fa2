// dovel: the command-line face of the library.
#include "Dovel/Version.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTextStream>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("dovel");
    QCoreApplication::setApplicationVersion(QString::fromLatin1(Dovel::version()));

    QCommandLineParser parser;
    parser.setApplicationDescription("Keeps a tree of attributes in step between processes.");
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addPositionalArgument("command", "demo");
    parser.process(app);

    const QStringList args = parser.positionalArguments();
    QTextStream out(stdout);
    if (args.isEmpty() || args.first() != "demo") {
        parser.showHelp(2);
    }
    out << "dovel " << QString::fromLatin1(Dovel::version()) << "\n";
    return 0;
}
