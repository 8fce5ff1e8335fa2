#include "ChangePrinter.h"

#include "Dovel/sync/RemoteNode.h"

#include "Tessel/Node.h"

namespace DovelTool {

namespace {

// The path as a line shows it: as it is, unless a reader could take it apart wrongly or
// JSON would write it otherwise (a control or hidden character, a backslash, bytes that
// are not UTF-8).
QByteArray pathText(const QByteArray& path) {
    const QByteArray quoted = TreeJson::jsonString(path);
    const bool plain = !path.startsWith("+ ") && !path.startsWith("- ") && !path.contains(" = ") &&
                       quoted.size() == path.size() + 2 && quoted.mid(1, path.size()) == path;
    return plain ? path : quoted;
}

QByteArray jsonLine(const char* event, const QByteArray& path, const QByteArray& valueText) {
    QByteArray line =
        QByteArray("{\"event\":\"") + event + "\",\"path\":" + TreeJson::jsonString(path);
    if (!valueText.isNull())
        line += ",\"value\":" + valueText;
    return line + "}\n";
}

} // namespace

ChangePrinter::ChangePrinter(Dovel::RemoteNode& node, Output output, Format format)
    : node(node), output(std::move(output)), format(format) {
    listenerId = node.addAttributeChangeListener(
        [this](const Dovel::NodeWatcher::Event& event) { handle(event); });
}

ChangePrinter::~ChangePrinter() {
    node.removeAttributeChangeListener(listenerId);
}

void ChangePrinter::setFilter(const QString& pattern) {
    filter.emplace(pattern.toUtf8());
}

bool ChangePrinter::shows(const QByteArray& path) const {
    return !filter || filter->matches(path);
}

int ChangePrinter::start(bool printHeld) {
    seen.clear();
    int shown = 0;
    Dovel::walkAttributesWithPath(node, [&](Tessel::Attribute& attribute, const QByteArray& path) {
        QByteArray text;
        if (!valueText(attribute, text))
            return;
        seen.insert(path, text);
        if (shows(path)) {
            ++shown;
            if (printHeld)
                output(addedLine(path, text));
        }
    });
    started = true;
    return shown;
}

QByteArray ChangePrinter::changedLine(const QByteArray& path, const QByteArray& valueText) const {
    if (format == Json)
        return jsonLine("set", path, valueText);
    return pathText(path) + " = " + valueText + '\n';
}

QByteArray ChangePrinter::addedLine(const QByteArray& path, const QByteArray& valueText) const {
    if (format == Json)
        return jsonLine("added", path, valueText);
    return "+ " + pathText(path) + " = " + valueText + '\n';
}

QByteArray ChangePrinter::removedLine(const QByteArray& path) const {
    if (format == Json)
        return jsonLine("removed", path, QByteArray());
    return "- " + pathText(path) + '\n';
}

bool ChangePrinter::valueText(Tessel::Attribute& attribute, QByteArray& out) const {
    if (Tessel::asNode(&attribute))
        return false;
    QJsonValue value;
    if (!json.toJson(attribute, value))
        return false;
    out = TreeJson::valueText(value);
    return true;
}

void ChangePrinter::forget(const QByteArray& path) {
    // A removed node takes its attributes along; whichever of its events comes first
    // prints them, the later ones find nothing left.
    // The map is sorted: the path itself, then (after names that sort between it and
    // its '/') every path under it, side by side.
    const auto drop = [this](QMap<QByteArray, QByteArray>::iterator it) {
        if (started && shows(it.key()))
            output(removedLine(it.key()));
        return seen.erase(it);
    };
    const auto self = seen.find(path);
    if (self != seen.end())
        drop(self);
    const QByteArray prefix = path + '/';
    for (auto it = seen.lowerBound(prefix); it != seen.end() && it.key().startsWith(prefix);)
        it = drop(it);
}

void ChangePrinter::handle(const Dovel::NodeWatcher::Event& event) {
    const QByteArray path = node.symbolRegistry().lookup(uint32_t(event.symbol));
    if (path.isEmpty())
        return;
    switch (event.type) {
    case Dovel::NodeWatcher::AttributeRemoved:
    case Dovel::NodeWatcher::NodeRemoved:
        forget(path);
        return;
    case Dovel::NodeWatcher::NodeAdded:
        return;
    case Dovel::NodeWatcher::AttributeAdded:
    case Dovel::NodeWatcher::AttributeChanged:
        break;
    }
    Tessel::Attribute* attribute = Dovel::attributeAt(node, path);
    QByteArray text;
    if (!attribute || !valueText(*attribute, text))
        return;
    auto known = seen.find(path);
    const bool isNew = known == seen.end();
    if (!isNew && known.value() == text)
        return;
    seen.insert(path, text);
    if (!started || !shows(path))
        return;
    output(isNew && event.type == Dovel::NodeWatcher::AttributeAdded ? addedLine(path, text)
                                                                     : changedLine(path, text));
}

} // namespace DovelTool
