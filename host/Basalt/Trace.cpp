#include "Basalt/Trace.h"

#include <QStringList>

#include <algorithm>
#include <atomic>
#include <chrono>
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

using Clock = std::chrono::steady_clock;

// How often one format reached standard error in the current second.
struct Repeats {
    const char* format = nullptr;
    Trace::Level level = Trace::Warning;
    Clock::time_point since;
    int printed = 0;
    long long leftOut = 0;
};

// Most formats whose repeats are counted at once; beyond it, quiet ones are dropped.
constexpr size_t MaxCountedFormats = 256;

// Process-wide logging state. Deliberately never destroyed: lines may be logged from
// static destructors and from threads that outlive main().
struct TraceState {
    std::atomic<int> threshold{levelFromEnvironment()};
    std::mutex mutex; // guards captures and repeats and serialises stderr lines
    std::vector<TraceCapture*> captures;
    std::vector<Repeats> repeats;
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

void writeLine(Trace::Level level, const QByteArray& text) {
    const QByteArray line =
        QByteArray("[") + Trace::levelName(level) + "] " + Trace::printable(text) + "\n";
    std::fwrite(line.constData(), 1, size_t(line.size()), stderr);
}

// "16,380"
QByteArray grouped(long long count) {
    QByteArray digits = QByteArray::number(count);
    for (int at = digits.size() - 3; at > 0; at -= 3)
        digits.insert(at, ',');
    return digits;
}

// Writes the count of the lines each format left out in a second that is over.
void reportLeftOut(TraceState& s, Clock::time_point now) {
    for (Repeats& r : s.repeats) {
        if (r.leftOut == 0 || now - r.since < std::chrono::seconds(1))
            continue;
        const char* conversion = std::strchr(r.format, '%');
        const QByteArray fixed = conversion
                                     ? QByteArray(r.format, int(conversion - r.format)) + "..."
                                     : QByteArray(r.format);
        writeLine(r.level,
                  fixed + " (" + grouped(r.leftOut) + " more like this in the last second)");
        r.leftOut = 0;
    }
}

// Whether a line of `fmt` may go to standard error now; counts it either way.
bool mayRepeat(TraceState& s, Trace::Level level, const char* fmt, Clock::time_point now) {
    auto found = std::find_if(s.repeats.begin(), s.repeats.end(),
                              [fmt](const Repeats& r) { return r.format == fmt; });
    if (found == s.repeats.end()) {
        if (s.repeats.size() >= MaxCountedFormats)
            s.repeats.erase(std::remove_if(s.repeats.begin(), s.repeats.end(),
                                           [now](const Repeats& r) {
                                               return r.leftOut == 0 &&
                                                      now - r.since >= std::chrono::seconds(1);
                                           }),
                            s.repeats.end());
        if (s.repeats.size() >= MaxCountedFormats)
            return true; // too many formats at once to count: let them through
        s.repeats.push_back(Repeats{fmt, level, now, 0, 0});
        found = s.repeats.end() - 1;
    }
    if (now - found->since >= std::chrono::seconds(1)) {
        found->since = now;
        found->printed = 0;
    }
    found->level = level;
    if (found->printed < Trace::MaxRepeatsPerSecond) {
        ++found->printed;
        return true;
    }
    ++found->leftOut;
    return false;
}

thread_local QByteArray currentPeer;

} // namespace

TracePeer::TracePeer(const QByteArray& peer) : previous(currentPeer) {
    currentPeer = peer;
}

TracePeer::~TracePeer() {
    currentPeer = previous;
}

void Trace::log(Level level, const char* fmt, va_list args) {
    if (level < Debug || level >= Off || fmt == nullptr)
        return;
    QByteArray text = format(fmt, args);
    // One call is one line: a trailing line end belongs to the line itself.
    while (text.endsWith('\n') || text.endsWith('\r'))
        text.chop(1);
    if (!currentPeer.isEmpty() && !text.contains(currentPeer))
        text += " (peer " + currentPeer + ')';

    TraceState& s = state();
    const bool toStderr = level >= s.threshold.load(std::memory_order_relaxed);
    std::lock_guard<std::mutex> lock(s.mutex);
    if (toStderr) {
        const Clock::time_point now = Clock::now();
        reportLeftOut(s, now);
        if (mayRepeat(s, level, fmt, now))
            writeLine(level, text);
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

QByteArray Trace::printable(const QByteArray& text) {
    QByteArray out;
    for (int i = 0; i < text.size(); ++i) {
        const auto c = uint8_t(text[i]);
        const bool c1 = c == 0xc2 && i + 1 < text.size() && uint8_t(text[i + 1]) >= 0x80 &&
                        uint8_t(text[i + 1]) <= 0x9f;
        if (c >= 0x20 && c != 0x7f && !c1) {
            out += char(c);
            continue;
        }
        const auto code = c1 ? uint8_t(text[++i]) : c;
        const char hex[] = "0123456789abcdef";
        out += "\\x";
        out += hex[code >> 4];
        out += hex[code & 15];
    }
    return out;
}

} // namespace Basalt
