// Replays every file of the given folders (or the given files) through a fuzz target's
// LLVMFuzzerTestOneInput, so that ctest runs each corpus without libFuzzer.
#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstdint>
#include <cstdio>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

int replayFile(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "replay: cannot open %s\n", qPrintable(path));
        return 1;
    }
    const QByteArray bytes = file.readAll();
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.constData()),
                           size_t(bytes.size()));
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    int files = 0;
    int failures = 0;
    for (int i = 1; i < argc; ++i) {
        const QString arg = QString::fromLocal8Bit(argv[i]);
        if (QFileInfo(arg).isDir()) {
            const QFileInfoList entries = QDir(arg).entryInfoList(QDir::Files, QDir::Name);
            for (const QFileInfo& entry : entries) {
                failures += replayFile(entry.filePath());
                ++files;
            }
        } else {
            failures += replayFile(arg);
            ++files;
        }
    }
    std::printf("replayed %d inputs\n", files);
    return failures == 0 ? 0 : 1;
}
