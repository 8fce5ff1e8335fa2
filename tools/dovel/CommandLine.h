// The words of one dovel subcommand: its options (each "--name", "--name VALUE" or
// "--name=VALUE", parsed by QCommandLineParser), its positional arguments, and the help
// text that describes them.
// Also reads HOST:PORT addresses and writes the tool's one-line errors.
//
// Usage:
//     CommandLine line("dump", "HOST:PORT [--timeout SECONDS]", "Prints a server's tree.");
//     line.addArgument("HOST:PORT", "the server");
//     line.addOption("timeout", "SECONDS", "give up after SECONDS (default 10)");
//     if (!line.parse(words)) return CommandLine::usageError(line.error());
//
// Not thread-safe; a command uses its own on the main thread.
#pragma once

#include <QString>
#include <QStringList>
#include <QVector>

namespace DovelTool {

class CommandLine {
public:
    // Exit statuses of every command.
    enum Status { Success = 0, Failure = 1, UsageError = 2 };

    CommandLine(const QString& command, const QString& synopsis, const QString& description);

    // `valueName` empty: a flag without a value.
    void addOption(const QString& name, const QString& valueName, const QString& help);
    // For the help text only; parse() accepts any number of positional words.
    void addArgument(const QString& name, const QString& help);

    // False with error() set for an unknown option or a missing value. "--help" and
    // "-h" anywhere only set helpRequested().
    bool parse(const QStringList& words);
    // parse() and what every command does with its outcome: -1 to go on, else the exit
    // status to return at once, with the help printed or a usage error written. Fewer
    // than `minPositional` or more than `maxPositional` (negative: no limit) positional
    // words is a usage error, naming `missing` or the first word too many.
    int parseOrExit(const QStringList& words, int minPositional = 0, int maxPositional = -1,
                    const QString& missing = QString());
    bool helpRequested() const { return help; }
    QString error() const { return problem; }
    const QStringList& positional() const { return positionals; }
    bool isSet(const QString& name) const;
    // The last value given, or `fallback` when the option is absent.
    QString value(const QString& name, const QString& fallback = QString()) const;
    // Every value given, in order.
    QStringList values(const QString& name) const;

    // "usage: dovel COMMAND SYNOPSIS", the description and every argument and option.
    QString helpText() const;
    // The one-line usage error: "dovel COMMAND: TEXT (see dovel COMMAND --help)".
    QString usageLine(const QString& text) const;

    // HOST:PORT with a non-empty host and a port 1..65535 (0 too when `allowAnyPort`).
    // False with `error` naming the text when it is not one.
    static bool parseAddress(const QString& text, bool allowAnyPort, QString& host, int& port,
                             QString& error);
    // A server's address: HOST:PORT as above (port 0 allowed), or PORT alone on the
    // loopback, 127.0.0.1.
    static bool parseListen(const QString& text, QString& host, int& port, QString& error);
    // A number of seconds above zero; false with `error` set otherwise.
    static bool parseSeconds(const QString& option, const QString& text, double& seconds,
                             QString& error);

    // Writes "dovel: TEXT" as one line on standard error, with TEXT's control characters
    // as \xNN (Basalt::Trace::printable): what a peer names (a file, a greeting) can then
    // neither break the line, move the cursor nor colour the terminal.
    static void note(const QString& text);
    // note(), and returns `status`.
    static int fail(int status, const QString& text);
    // Writes `text` to standard output as it is and flushes it.
    static void print(const QByteArray& text);

private:
    struct Option {
        QString name;
        QString valueName;
        QString help;
    };
    struct Argument {
        QString name;
        QString help;
    };

    QString command;
    QString synopsis;
    QString description;
    QVector<Option> options;
    QVector<Argument> arguments;
    QStringList positionals;
    QVector<QPair<QString, QString>> given; // option name -> value, each option's in order
    QString problem;
    bool help = false;
};

} // namespace DovelTool
