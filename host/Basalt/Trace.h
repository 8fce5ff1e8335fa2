// Logging: one call is one line of a severity. Thread-safe.
//
// Lines go to standard error when their level passes the threshold, which the
// environment variable DOVEL_LOG sets ("debug", "info", "warning", "error" or "off";
// "warning" when unset). Lines of one format reach standard error at most
// MaxRepeatsPerSecond times a second; the rest are counted, and the count follows as
// one line ("... N more like this in the last second"), so that a peer repeating a
// fault cannot flood (or, with a full pipe, stall) the process. A TraceCapture collects
// every line of every level, whatever the threshold and the repeats, so that tests can
// assert on what the code logged.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <cstdarg>
#include <memory>

namespace Basalt {

class Trace {
public:
    enum Level { Debug = 0, Info = 1, Warning = 2, Error = 3, Off = 4 };

    static void debug(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void info(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void warning(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void error(const char* format, ...) __attribute__((format(printf, 1, 2)));

    static void log(Level level, const char* format, va_list args);

    // The stderr threshold; starts from DOVEL_LOG.
    static Level threshold();
    static void setThreshold(Level level);

    static const char* levelName(Level level);
    // `text` (UTF-8) with its control bytes (C0, DEL, and C1 as UTF-8 writes them) as
    // \xNN: a line that quotes what a peer sent must neither break in two nor reach the
    // terminal as it is. Lines written to standard error go through it.
    static QByteArray printable(const QByteArray& text);

    static constexpr int MaxRepeatsPerSecond = 5;
};

// Names the peer that the work on this thread is for (its address, "HOST:PORT") while
// it lives: lines logged meanwhile end in " (peer HOST:PORT)" unless they name it
// already. Scopes nest; the inner one counts.
class TracePeer {
public:
    explicit TracePeer(const QByteArray& peer);
    ~TracePeer();
    TracePeer(const TracePeer&) = delete;
    TracePeer& operator=(const TracePeer&) = delete;

private:
    QByteArray previous;
};

// One captured line.
struct TraceLine {
    Trace::Level level;
    QString text;
};

// Collects the lines logged from any thread while it lives. Captures nest: each
// live capture sees every line. Thread-safe.
class TraceCapture {
public:
    TraceCapture();
    ~TraceCapture();
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    QList<TraceLine> lines() const;
    // Number of lines that contain `text` (at `level`, or at any level when -1).
    int count(const QString& text, int level = -1) const;
    bool contains(const QString& text, int level = -1) const { return count(text, level) > 0; }
    void clear();
    // Every captured line, one per row, with its level: for test failure messages.
    QString dump() const;

private:
    friend class Trace;
    void append(Trace::Level level, const QString& text);
    struct Impl;
    std::unique_ptr<Impl> impl;
};

} // namespace Basalt
