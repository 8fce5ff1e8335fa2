#include "TreeReplica.h"

#include "ProcessProbe.h"
#include "TreeContent.h"

namespace QtroBench {

TreeReplica::TreeReplica(int attributes, const QUrl& host)
    : attributes(attributes), heapStart(heapInUseBytes()) {
    clock.start();
    node.connectToNode(host);
    replica.reset(node.acquire<TreeStoreReplica>(QStringLiteral("initial")));
    connect(replica.get(), &QRemoteObjectReplica::initialized, this, &TreeReplica::onInitialized);
    connect(replica.get(), &QRemoteObjectReplica::stateChanged, this,
            [this](QRemoteObjectReplica::State state) {
                if (state == QRemoteObjectReplica::Suspect)
                    emit broken(QStringLiteral("replica: lost the source"));
            });
}

void TreeReplica::onInitialized() {
    const double seconds = double(clock.nsecsElapsed()) / 1e9;
    const double heapGrowth = heapInUseBytes() - heapStart;
    const QString wrong = difference();
    if (!wrong.isEmpty()) {
        emit broken(QStringLiteral("replica: %1").arg(wrong));
        return;
    }
    const QString workload = QStringLiteral("initial");
    report.add(workload, QStringLiteral("seconds"), seconds, QStringLiteral("s"));
    report.add(workload, QStringLiteral("client_peak_rss_mb"), peakRssMb(), QStringLiteral("MiB"));
    report.add(workload, QStringLiteral("client_bytes_per_attribute"), heapGrowth / attributes,
               QStringLiteral("B"));
    emit done();
}

QString TreeReplica::difference() const {
    const QHash<QString, float> floats = replica->floats();
    const QHash<QString, QString> strings = replica->strings();
    const QHash<QString, QVector3D> vectors = replica->vectors();
    const int held = floats.size() + strings.size() + vectors.size();
    if (held != attributes)
        return QStringLiteral("holds %1 attributes of %2").arg(held).arg(attributes);
    for (int i = 0; i < attributes; ++i) {
        const QString path = TreeContent::path(i);
        bool same = false;
        switch (TreeContent::kind(i)) {
        case TreeContent::Float:
            same = floats.value(path, -1.0f) == TreeContent::floatValue(i);
            break;
        case TreeContent::String:
            same = strings.value(path) == TreeContent::stringValue(i);
            break;
        case TreeContent::Vector:
            same = vectors.contains(path) && vectors.value(path) == TreeContent::vectorValue(i);
            break;
        }
        if (!same)
            return QStringLiteral("%1 is missing or differs").arg(path);
    }
    return QString();
}

} // namespace QtroBench
