// Folder mirroring over loopback against the machine's MD5 speed: a FolderServer and a
// FolderPull in one process, each run pulling into an empty folder. Reported
// as bytes per second. The case of 4 files of 256 MiB runs only with DOVEL_BENCH_BIG=1,
// so that a default run stays short.
#include "Dovel/files/AssetBase.h"
#include "Dovel/files/FolderPull.h"
#include "Dovel/files/FolderServer.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>

namespace {

// The checksum caches go to a temporary folder, not the user's settings.
QTemporaryDir& settingsDir() {
    static QTemporaryDir dir;
    return dir;
}

void redirectSettings() {
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, settingsDir().path());
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, settingsDir().path());
}

QByteArray block(int size, int seed) {
    QByteArray bytes(size, '\0');
    uint32_t x = 2463534242u + static_cast<uint32_t>(seed);
    for (int i = 0; i < size; i += 4) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        for (int k = 0; k < 4 && i + k < size; ++k)
            bytes[i + k] = static_cast<char>(x >> (8 * k));
    }
    return bytes;
}

// A served folder of `files` files of `size` bytes, made once per shape.
struct Source {
    QTemporaryDir dir;
    std::unique_ptr<Dovel::FolderServer> server;
    int64_t bytes = 0;

    Source(int files, int64_t size) {
        const QByteArray chunk = block(1 << 20, 1);
        for (int i = 0; i < files; ++i) {
            const QString path = dir.path() + QStringLiteral("/d%1/f%2.bin").arg(i % 16).arg(i);
            QDir().mkpath(QFileInfo(path).absolutePath());
            QFile file(path);
            file.open(QIODevice::WriteOnly);
            for (int64_t done = 0; done < size;) {
                const int64_t step = std::min<int64_t>(size - done, chunk.size());
                QByteArray piece = chunk.left(int(step));
                piece[0] = static_cast<char>(i); // files differ
                file.write(piece);
                done += step;
            }
            bytes += size;
        }
        server = std::make_unique<Dovel::FolderServer>(dir.path());
        server->asset().buildFileList(); // checksums once, outside the timing
        server->run(QStringLiteral("127.0.0.1"), 0);
        server->waitListening(5000);
    }
};

void runMirror(benchmark::State& state, int files, int64_t size) {
    redirectSettings();
    Source source(files, size);
    for (auto _ : state) {
        state.PauseTiming();
        QTemporaryDir target;
        state.ResumeTiming();
        Dovel::AssetBase asset(target.path());
        auto pull = Dovel::FolderPull::create(asset, false);
        pull->start(QStringLiteral("127.0.0.1"), source.server->port());
        pull->waitFinished(-1);
        pull->shutdown();
        if (!pull->result().success)
            state.SkipWithError("the pull failed");
    }
    state.SetBytesProcessed(state.iterations() * source.bytes);
}

void BM_Md5(benchmark::State& state) {
    const QByteArray data = block(64 << 20, 2);
    for (auto _ : state) {
        QCryptographicHash hash(QCryptographicHash::Md5);
        hash.addData(data);
        benchmark::DoNotOptimize(hash.result());
    }
    state.SetBytesProcessed(state.iterations() * data.size());
}
BENCHMARK(BM_Md5)->Unit(benchmark::kMillisecond);

void BM_MirrorThousandFilesOf64KiB(benchmark::State& state) {
    runMirror(state, 1000, 64 << 10);
}
BENCHMARK(BM_MirrorThousandFilesOf64KiB)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_MirrorFourFilesOf256MiB(benchmark::State& state) {
    runMirror(state, 4, int64_t(256) << 20);
}
const bool bigRegistered = [] {
    if (std::getenv("DOVEL_BENCH_BIG") && std::string(std::getenv("DOVEL_BENCH_BIG")) == "1")
        benchmark::RegisterBenchmark("BM_MirrorFourFilesOf256MiB", BM_MirrorFourFilesOf256MiB)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime()
            ->Iterations(1);
    return true;
}();

} // namespace
