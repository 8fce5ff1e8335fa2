// The reading side of the line protocol: text lines, raw blocks, skipped bytes and maps
// (a binary block, or key and value lines for peers before 1.9.1), over a receive
// buffer. Every size a peer announces is held to the limits of Dovel/Limits.h before it
// sizes anything, and a long read grows its result only as the bytes arrive.
//
// It reads from a ByteSource, so that the same code runs over a connection's socket and
// over a fake source in a test. A read that cannot give its value returns none (or
// false) and, when the stream cannot go on, records why; the owner takes that with
// takeFailure() and ends the stream. (A map block short of its entries is no such case:
// its bytes were all read and the stream stays in frame.)
//
// Threads: not thread-safe; one thread reads (a connection's own thread).
#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>

#include <cstdint>
#include <optional>
#include <vector>

namespace Dovel {

// Where a LineReader's bytes come from.
class ByteSource {
public:
    virtual ~ByteSource() = default;
    // Reads up to `size` bytes into dst: waits until some arrive or, with `all`, until
    // all of them did (a source may still return fewer). Zero or less when the stream
    // has ended or failed.
    virtual int read(char* dst, int size, bool all) = 0;
    // The peer as log lines name it ("host:port").
    virtual QString peerName() const = 0;
    // True when the stream was ended on purpose: a read that fails then is no news.
    virtual bool wasStopped() const { return false; }
};

class LineReader {
public:
    // How the stream ended. Rejected: the peer broke a limit or the framing, and what
    // follows cannot be read; the owner closes the source.
    enum class Failure { None, Ended, Rejected };

    // The source outlives the reader.
    explicit LineReader(ByteSource& source);

    // Forgets buffered bytes and any failure, for a new stream from the same source.
    void reset();
    // True when bytes wait in the buffer (a line may be read without waiting).
    bool hasBuffered() const { return begin != end; }
    // The failure since the last call (the worst of them), and clears it.
    Failure takeFailure();

    // The next non-empty line without its end ("\n", "\r" or both), as UTF-8.
    std::optional<QString> line();
    // The raw bytes of the line that line() returned last; empty after a failure.
    const QByteArray& lastLine() const { return last; }
    // Exactly `size` bytes (none asked: an empty array).
    std::optional<QByteArray> readData(int size);
    bool readData(uint8_t* dst, int size);
    bool skip(int size);
    // The `count` entries that follow a map line, in the binary form or as text lines.
    // A block that does not hold them is logged and yields none, but leaves the stream
    // framed; a map of no entries is a map.
    std::optional<QMap<QString, QString>> readMap(int count, bool binary);

private:
    bool fill();
    // Reads exactly `size` bytes into dst, buffered ones first; `got` counts them.
    bool readExact(char* dst, int size, int& got);
    std::optional<QMap<QString, QString>> readTextMap(int count);
    void fail(Failure why);
    // Logs the broken limit and fails the stream as Rejected.
    void reject(const char* operation, const char* what, int64_t size, int64_t limit);
    // Logs a read cut short (unless the source was stopped) and fails it as Ended.
    void readError(const char* operation, int size, int got);

    ByteSource& source;
    std::vector<char> buffer;
    int begin = 0;
    int end = 0;
    QByteArray last;
    Failure failure = Failure::None;
    // After a rejection nothing more comes from the source (bytes already buffered
    // still do), as from a socket the owner has closed.
    bool rejected = false;
};

} // namespace Dovel
