// Runs the event loop of one side of a workload until the workload says it is done,
// fails, or runs past its deadline. A failure or time-out is one line on standard error.
// Main thread only.
#pragma once

#include <QEventLoop>
#include <QObject>
#include <QString>

namespace QtroBench {

class WorkloadLoop : public QObject {
    Q_OBJECT
public:
    // `what` names the side in messages, as "updates source".
    explicit WorkloadLoop(const QString& what);

    // Runs until finish() or fail(), at most `seconds`; true when finished.
    bool run(double seconds);

public slots:
    void finish();
    // The first call decides; later ones and those after finish() are ignored.
    void fail(const QString& reason);

private:
    QString what;
    QEventLoop loop;
    bool ended = false;
    bool succeeded = false;
};

} // namespace QtroBench
