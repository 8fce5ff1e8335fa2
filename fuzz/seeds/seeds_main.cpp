// fuzz_seeds: writes the seeds of the fuzz targets' corpora, or checks that the kept ones
// are still what the code writes.
//   fuzz_seeds [--check] CORPUS_FOLDER [TARGET...]
// writes (or compares) CORPUS_FOLDER/<target>/<seed> for the given targets, all by
// default. Exit status 0 when everything was written or matched, 1 otherwise.
#include "Seeds.h"

#include <QDir>
#include <QFile>

#include <cstdio>
#include <cstring>
#include <iterator>

namespace {

struct Target {
    const char* name;
    FuzzSeeds::Seeds (*make)();
};

// The session seeds carry slice ids from a process-wide counter, so they are made first,
// as in a fresh process.
const Target targets[] = {
    {"session", FuzzSeeds::session},   {"binarydata", FuzzSeeds::binarydata},
    {"bundle", FuzzSeeds::bundle},     {"files", FuzzSeeds::files},
    {"line", FuzzSeeds::line},         {"slices", FuzzSeeds::slices},
    {"treejson", FuzzSeeds::treejson},
};

bool writeSeeds(const QString& folder, const FuzzSeeds::Seeds& seeds) {
    if (!QDir().mkpath(folder)) {
        std::fprintf(stderr, "fuzz_seeds: cannot make %s\n", qPrintable(folder));
        return false;
    }
    bool ok = true;
    for (const auto& seed : seeds) {
        QFile file(folder + QLatin1Char('/') + seed.first);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
            file.write(seed.second) != seed.second.size()) {
            std::fprintf(stderr, "fuzz_seeds: cannot write %s\n", qPrintable(file.fileName()));
            ok = false;
        }
    }
    return ok;
}

bool checkSeeds(const QString& folder, const FuzzSeeds::Seeds& seeds) {
    bool ok = true;
    for (const auto& seed : seeds) {
        QFile file(folder + QLatin1Char('/') + seed.first);
        if (!file.open(QIODevice::ReadOnly) || file.readAll() != seed.second) {
            std::printf("stale %s\n", qPrintable(file.fileName()));
            ok = false;
        }
    }
    return ok;
}

} // namespace

int main(int argc, char** argv) {
    int first = 1;
    const bool check = argc > 1 && std::strcmp(argv[1], "--check") == 0;
    if (check)
        ++first;
    if (first >= argc) {
        std::fprintf(stderr, "usage: fuzz_seeds [--check] CORPUS_FOLDER [TARGET...]\n");
        return 2;
    }
    const QString root = QString::fromLocal8Bit(argv[first]);
    QStringList wanted;
    for (int i = first + 1; i < argc; ++i)
        wanted << QString::fromLocal8Bit(argv[i]);

    bool ok = true;
    int done = 0;
    for (const Target& target : targets) {
        if (!wanted.isEmpty() && !wanted.contains(QLatin1String(target.name)))
            continue;
        const QString folder = root + QLatin1Char('/') + QLatin1String(target.name);
        const FuzzSeeds::Seeds seeds = target.make();
        ok = (check ? checkSeeds(folder, seeds) : writeSeeds(folder, seeds)) && ok;
        ++done;
    }
    if (done != (wanted.isEmpty() ? int(std::size(targets)) : wanted.size())) {
        std::fprintf(stderr, "fuzz_seeds: unknown target among the arguments\n");
        return 2;
    }
    std::printf("%s %d targets\n", check ? "checked" : "wrote", done);
    return ok ? 0 : 1;
}
