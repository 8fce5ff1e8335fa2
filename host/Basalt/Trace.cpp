#include "Basalt/Trace.h"

#include <QStringList>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

namespace Basalt {

namespace {

Trace::Level levelFromEnvironment() {
    const char* value = std::getenv("DOVEL_LOG");
    if (value == nullptr)
        return Trace::Warning;
    const QByteArray text = QByteArray(value).trimmed().toLower();
    if (text == "debug")
        return Trace::Debug;
    if (text == "info")
        return Trace::Info;
    if (text == "error")
        return Trace::Error;
    if (text == "off" || text == "none")
        return Trace::Off;
    return Trace::Warning;
}

// Process-wide logging state. Deliberately never destroyed: lines may be logged from
// static destructors and from threads that outlive main().
struct TraceState {
    std::atomic<int> threshold{levelFromEnvironment()};
    std::mutex mutex; // guards captures and serialises stderr lines
    std::vector<TraceCapture*> captures;
};

TraceState& state() {
    static TraceState* s = new TraceState;
    return *s;
}

QByteArray format(const char* fmt, va_list args) {
    char small[512];
    va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(small, sizeof small, fmt, copy);
    va_end(copy);
    if (needed < 0)
        return QByteArray(fmt);
    if (size_t(needed) < sizeof small)
        return QByteArray(small, needed);
    QByteArray big(needed + 1, '\0');
    std::vsnprintf(big.data(), size_t(needed) + 1, fmt, args);
    big.truncate(needed);
    return big;
}

} // namespace

void Trace::log(Level level, const char* fmt, va_list args) {
    if (level < Debug || level >= Off || fmt == nullptr)
        return;
    QByteArray text = format(fmt, args);
    // One call is one line: a trailing line end belongs to the line itself.
    while (text.endsWith('\n') || text.endsWith('\r'))
        text.chop(1);

    TraceState& s = state();
    const bool toStderr = level >= s.threshold.load(std::memory_order_relaxed);
    std::lock_guard<std::mutex> lock(s.mutex);
    if (toStderr) {
        const QByteArray line = QByteArray("[") + levelName(level) + "] " + text + "\n";
        std::fwrite(line.constData(), 1, size_t(line.size()), stderr);
    }
    if (!s.captures.empty()) {
        const QString decoded = QString::fromUtf8(text);
        for (TraceCapture* capture : s.captures)
            capture->append(level, decoded);
    }
}

void Trace::debug(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    log(Debug, fmt, args);
    va_end(args);
}

void Trace::info(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    log(Info, fmt, args);
    va_end(args);
}

void Trace::warning(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    log(Warning, fmt, args);
    va_end(args);
}

void Trace::error(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    log(Error, fmt, args);
    va_end(args);
}

Trace::Level Trace::threshold() {
    return Level(state().threshold.load());
}

void Trace::setThreshold(Level level) {
    state().threshold.store(std::clamp(int(level), int(Debug), int(Off)));
}

const char* Trace::levelName(Level level) {
    switch (level) {
    case Debug:
        return "debug";
    case Info:
        return "info";
    case Warning:
        return "warning";
    case Error:
        return "error";
    case Off:
        return "off";
    }
    return "?";
}

// A capture's own lock is always taken inside the state lock (append) or alone.
struct TraceCapture::Impl {
    mutable std::mutex mutex;
    QList<TraceLine> lines;
};

TraceCapture::TraceCapture() : impl(new Impl) {
    TraceState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.captures.push_back(this);
}

TraceCapture::~TraceCapture() {
    TraceState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.captures.erase(std::remove(s.captures.begin(), s.captures.end(), this), s.captures.end());
}

void TraceCapture::append(Trace::Level level, const QString& text) {
    std::lock_guard<std::mutex> lock(impl->mutex);
    impl->lines.append(TraceLine{level, text});
}

QList<TraceLine> TraceCapture::lines() const {
    std::lock_guard<std::mutex> lock(impl->mutex);
    return impl->lines;
}

int TraceCapture::count(const QString& text, int level) const {
    std::lock_guard<std::mutex> lock(impl->mutex);
    int n = 0;
    for (const TraceLine& line : impl->lines) {
        if ((level < 0 || int(line.level) == level) && line.text.contains(text))
            ++n;
    }
    return n;
}

void TraceCapture::clear() {
    std::lock_guard<std::mutex> lock(impl->mutex);
    impl->lines.clear();
}

QString TraceCapture::dump() const {
    std::lock_guard<std::mutex> lock(impl->mutex);
    QStringList rows;
    for (const TraceLine& line : impl->lines)
        rows << QString("[%1] %2").arg(Trace::levelName(line.level), line.text);
    return rows.join('\n');
}

} // namespace Basalt
