#include "CommandLine.h"

#include "Basalt/Trace.h"

#include <QCommandLineOption>
#include <QCommandLineParser>

#include <cmath>
#include <cstdio>

namespace DovelTool {

CommandLine::CommandLine(const QString& command, const QString& synopsis,
                         const QString& description)
    : command(command), synopsis(synopsis), description(description) {}

void CommandLine::addOption(const QString& name, const QString& valueName, const QString& help) {
    options.append(Option{name, valueName, help});
}

void CommandLine::addArgument(const QString& name, const QString& help) {
    arguments.append(Argument{name, help});
}

namespace {

// QCommandLineParser's error, in the tool's words: "Unknown option 'x'." becomes
// "unknown option 'x'".
QString lowered(QString text) {
    if (text.endsWith(QLatin1Char('.')))
        text.chop(1);
    if (!text.isEmpty())
        text[0] = text[0].toLower();
    return text;
}

} // namespace

bool CommandLine::parse(const QStringList& words) {
    positionals.clear();
    given.clear();
    problem.clear();
    help = false;
    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    const QCommandLineOption helpOption({QStringLiteral("h"), QStringLiteral("help")},
                                        QStringLiteral("show this help and exit"));
    parser.addOption(helpOption);
    for (const Option& option : options)
        parser.addOption(QCommandLineOption(option.name, option.help, option.valueName));
    if (!parser.parse(QStringList{QStringLiteral("dovel")} + words)) {
        problem = lowered(parser.errorText());
        return false;
    }
    help = parser.isSet(helpOption);
    positionals = parser.positionalArguments();
    for (const Option& option : options)
        for (const QString& value :
             option.valueName.isEmpty()
                 ? QStringList(parser.isSet(option.name) ? QStringList{QString()} : QStringList())
                 : parser.values(option.name))
            given.append({option.name, value});
    return true;
}

int CommandLine::parseOrExit(const QStringList& words, int minPositional, int maxPositional,
                             const QString& missing) {
    if (!parse(words))
        return fail(UsageError, usageLine(error()));
    if (helpRequested()) {
        print(helpText().toUtf8());
        return Success;
    }
    if (positionals.size() < minPositional)
        return fail(UsageError, usageLine(QStringLiteral("missing %1").arg(missing)));
    if (maxPositional >= 0 && positionals.size() > maxPositional)
        return fail(
            UsageError,
            usageLine(
                QStringLiteral("unexpected argument '%1'").arg(positionals.at(maxPositional))));
    return -1;
}

bool CommandLine::isSet(const QString& name) const {
    for (const auto& entry : given)
        if (entry.first == name)
            return true;
    return false;
}

QString CommandLine::value(const QString& name, const QString& fallback) const {
    QString found = fallback;
    for (const auto& entry : given)
        if (entry.first == name)
            found = entry.second;
    return found;
}

QStringList CommandLine::values(const QString& name) const {
    QStringList found;
    for (const auto& entry : given)
        if (entry.first == name)
            found.append(entry.second);
    return found;
}

QString CommandLine::helpText() const {
    QString text = QStringLiteral("usage: dovel %1 %2\n\n%3\n").arg(command, synopsis, description);
    // "  LEFT      RIGHT", the right side wrapped at 80 columns under itself.
    auto column = [](const QString& left, const QString& right) {
        constexpr int Indent = 24;
        QString line = QStringLiteral("  ") + left;
        if (line.size() < Indent)
            line = line.leftJustified(Indent);
        else
            line += QStringLiteral("\n") + QString(Indent, QLatin1Char(' '));
        int width = 0;
        for (const QString& word : right.split(QLatin1Char(' '))) {
            if (width > 0 && Indent + width + 1 + word.size() > 80) {
                line += QStringLiteral("\n") + QString(Indent, QLatin1Char(' '));
                width = 0;
            } else if (width > 0) {
                line += QLatin1Char(' ');
                ++width;
            }
            line += word;
            width += word.size();
        }
        return line + QStringLiteral("\n");
    };
    if (!arguments.isEmpty()) {
        text += QStringLiteral("\nArguments:\n");
        for (const Argument& argument : arguments)
            text += column(argument.name, argument.help);
    }
    text += QStringLiteral("\nOptions:\n");
    for (const Option& option : options) {
        const QString left = option.valueName.isEmpty()
                                 ? QStringLiteral("--") + option.name
                                 : QStringLiteral("--%1 %2").arg(option.name, option.valueName);
        text += column(left, option.help);
    }
    text += column(QStringLiteral("-h, --help"), QStringLiteral("show this help and exit"));
    return text;
}

QString CommandLine::usageLine(const QString& text) const {
    return QStringLiteral("%1 (see dovel %2 --help)").arg(text, command);
}

bool CommandLine::parseAddress(const QString& text, bool allowAnyPort, QString& host, int& port,
                               QString& error) {
    const int colon = text.lastIndexOf(QLatin1Char(':'));
    bool ok = false;
    const int number = colon > 0 ? text.mid(colon + 1).toInt(&ok) : -1;
    if (colon <= 0 || !ok || number < (allowAnyPort ? 0 : 1) || number > 65535 ||
        text.left(colon).contains(QLatin1Char(' '))) {
        error = QStringLiteral("bad address '%1', expected HOST:PORT").arg(text);
        return false;
    }
    host = text.left(colon);
    port = number;
    return true;
}

bool CommandLine::parseListen(const QString& text, QString& host, int& port, QString& error) {
    bool ok = false;
    const int number = text.toInt(&ok);
    if (ok && !text.isEmpty() && text.at(0).isDigit() && number <= 65535) {
        host = QStringLiteral("127.0.0.1");
        port = number;
        return true;
    }
    return parseAddress(text, true, host, port, error);
}

bool CommandLine::parseSeconds(const QString& option, const QString& text, double& seconds,
                               QString& error) {
    bool ok = false;
    const double number = text.toDouble(&ok);
    if (!ok || !std::isfinite(number) || number <= 0 || number > 1e6) {
        error =
            QStringLiteral("--%1 takes a positive number of seconds, not '%2'").arg(option, text);
        return false;
    }
    seconds = number;
    return true;
}

void CommandLine::note(const QString& text) {
    std::fprintf(stderr, "dovel: %s\n", Basalt::Trace::printable(text.toUtf8()).constData());
    std::fflush(stderr);
}

int CommandLine::fail(int status, const QString& text) {
    note(text);
    return status;
}

void CommandLine::print(const QByteArray& text) {
    std::fwrite(text.constData(), 1, size_t(text.size()), stdout);
    std::fflush(stdout);
}

} // namespace DovelTool
