#include "Dovel/transport/LineReader.h"

#include "Dovel/Limits.h"
#include "Dovel/transport/MapBlock.h"

#include "Basalt/Trace.h"

#include <algorithm>
#include <cstring>

namespace Dovel {

namespace {

constexpr int ReceiveBufferSize = 16384;
// Long reads go to the source in slices, so that the last-packet stamp keeps up.
constexpr int ReadSlice = 65536;
// A long readData grows its result by at most this much per step: memory follows the
// bytes that actually arrive, not the size the peer announced.
constexpr int ReadGrowth = 1 << 20;

} // namespace

LineReader::LineReader(ByteSource& source) : source(source), buffer(ReceiveBufferSize) {}

void LineReader::reset() {
    begin = end = 0;
    last.clear();
    failure = Failure::None;
    rejected = false;
}

LineReader::Failure LineReader::takeFailure() {
    const Failure taken = failure;
    failure = Failure::None;
    return taken;
}

void LineReader::fail(Failure why) {
    failure = std::max(failure, why);
    rejected = rejected || why == Failure::Rejected;
}

void LineReader::reject(const char* operation, const char* what, int64_t size, int64_t limit) {
    Basalt::Trace::warning("LineReader::%s # %s of %lld from %s exceeds the limit of %lld, "
                           "disconnecting",
                           operation, what, static_cast<long long>(size),
                           source.peerName().toUtf8().constData(), static_cast<long long>(limit));
    fail(Failure::Rejected);
}

void LineReader::readError(const char* operation, int size, int got) {
    if (!source.wasStopped())
        Basalt::Trace::warning("LineReader::%s # Read error (%s expected %d bytes, got %d bytes",
                               operation, source.peerName().toUtf8().constData(), size, got);
    fail(Failure::Ended);
}

bool LineReader::fill() {
    if (rejected)
        return false;
    const int n = source.read(buffer.data(), static_cast<int>(buffer.size()), false);
    if (n <= 0)
        return false;
    begin = 0;
    end = n;
    return true;
}

std::optional<QString> LineReader::line() {
    QByteArray gathered;
    for (;;) {
        if (begin == end && !fill()) {
            Basalt::Trace::debug(
                "LineReader::line # no reply from %s (could not read from the stream)",
                source.peerName().toUtf8().constData());
            fail(Failure::Ended);
            last.clear();
            return std::nullopt;
        }
        const char* from = buffer.data() + begin;
        const char* to = buffer.data() + end;
        const char* stop = std::find_if(from, to, [](char c) { return c == '\n' || c == '\r'; });
        const int take = static_cast<int>(stop - from);
        if (gathered.size() + take > Limits::MaxLineBytes) {
            reject("line", "A line", gathered.size() + take, Limits::MaxLineBytes);
            last.clear();
            return std::nullopt;
        }
        gathered.append(from, take);
        begin += take;
        if (stop == to)
            continue;
        ++begin; // the line end
        if (!gathered.isEmpty()) {
            last = gathered;
            return QString::fromUtf8(gathered.constData(), gathered.size());
        }
    }
}

bool LineReader::readExact(char* dst, int size, int& got) {
    got = std::min(size, end - begin);
    if (got > 0) {
        std::memcpy(dst, buffer.data() + begin, static_cast<size_t>(got));
        begin += got;
    }
    while (got < size) {
        if (rejected)
            return false;
        const int n = source.read(dst + got, std::min(size - got, ReadSlice), true);
        if (n <= 0)
            return false;
        got += n;
    }
    return true;
}

std::optional<QByteArray> LineReader::readData(int size) {
    if (size <= 0)
        return QByteArray();
    if (size > Limits::MaxReadBytes) {
        reject("readData", "A read", size, Limits::MaxReadBytes);
        return std::nullopt;
    }
    QByteArray out;
    int got = 0;
    while (got < size) {
        const int target = std::min(size, got + ReadGrowth);
        out.resize(target);
        int n = 0;
        const bool ok = readExact(out.data() + got, target - got, n);
        got += n;
        if (!ok) {
            readError("readData", size, got);
            return std::nullopt;
        }
    }
    return out;
}

bool LineReader::readData(uint8_t* dst, int size) {
    if (size <= 0)
        return size == 0;
    if (size > Limits::MaxReadBytes) {
        reject("readData", "A read", size, Limits::MaxReadBytes);
        return false;
    }
    int got = 0;
    if (!readExact(reinterpret_cast<char*>(dst), size, got)) {
        readError("readData", size, got);
        return false;
    }
    return true;
}

bool LineReader::skip(int size) {
    if (size <= 0)
        return true;
    if (size > Limits::MaxReadBytes) {
        reject("skip", "A skip", size, Limits::MaxReadBytes);
        return false;
    }
    char scratch[4096];
    int done = 0;
    while (done < size) {
        const int step = std::min(size - done, static_cast<int>(sizeof scratch));
        int got = 0;
        const bool ok = readExact(scratch, step, got);
        done += got;
        if (!ok) {
            readError("skip", size, done);
            return false;
        }
    }
    return true;
}

namespace {

std::nullopt_t mapReadFailed() {
    Basalt::Trace::error("LineReader::readMap # error while reading data");
    return std::nullopt;
}

} // namespace

std::optional<QMap<QString, QString>> LineReader::readMap(int count, bool binary) {
    if (count < 0 || count > Limits::MaxMapEntries) {
        reject("readMap", "A map count", count, Limits::MaxMapEntries);
        return std::nullopt;
    }
    if (!binary)
        return readTextMap(count);

    const std::optional<QByteArray> lengthItem = readData(MapBlock::LengthItemBytes);
    if (!lengthItem || lengthItem->size() != MapBlock::LengthItemBytes)
        return mapReadFailed();
    const int length = MapBlock::blockLength(*lengthItem);
    if (length < 0) {
        // Without a valid length the rest of the stream cannot be framed.
        mapReadFailed();
        fail(Failure::Rejected);
        return std::nullopt;
    }
    if (length > Limits::MaxMapBlockBytes) {
        reject("readMap", "A map block", length, Limits::MaxMapBlockBytes);
        return std::nullopt;
    }
    const int bodySize = length - MapBlock::LengthItemBytes;
    const std::optional<QByteArray> body = readData(bodySize);
    QMap<QString, QString> map;
    if (!body || body->size() != bodySize || !MapBlock::parseEntries(*body, count, map))
        return mapReadFailed();
    return map;
}

std::optional<QMap<QString, QString>> LineReader::readTextMap(int count) {
    // The text form is held to the same size as a binary block.
    QMap<QString, QString> map;
    int64_t held = 0;
    for (int i = 0; i < count; ++i) {
        const std::optional<QString> key = line();
        if (!key)
            return mapReadFailed();
        held += last.size();
        const std::optional<QString> value = line();
        if (!value)
            return mapReadFailed();
        held += last.size();
        if (held > Limits::MaxMapBlockBytes) {
            reject("readMap", "A text map", held, Limits::MaxMapBlockBytes);
            return std::nullopt;
        }
        map.insert(*key, *value);
    }
    return map;
}

} // namespace Dovel
