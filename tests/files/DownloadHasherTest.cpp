// Hashing downloads from their files: bytes fed in order as they are written, two files
// at once, and nothing of a cancelled download fed afterwards.
#include "files/FilesTestUtil.h"

#include "Dovel/files/DownloadHasher.h"

#include <QHash>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace {

using namespace FilesTest;
using BasaltTest::currentTid;
using BasaltTest::waitUntilBlocked;

// Records what each download was fed; feeding of one name can be held still.
struct Recorder {
    std::mutex mutex;
    std::condition_variable changed;
    QHash<QString, QByteArray> fed;
    QString held;
    bool holding = false; // a feed of `held` is waiting

    void feed(const QString& name, const QByteArray& bytes) {
        std::unique_lock<std::mutex> lock(mutex);
        if (name == held) {
            holding = true;
            changed.notify_all();
            changed.wait(lock, [&] { return held != name; });
            holding = false;
        }
        fed[name] += bytes;
    }
    // Holds the feeds of `name` from now on, or releases them when it is empty.
    void hold(const QString& name) {
        std::lock_guard<std::mutex> lock(mutex);
        held = name;
        changed.notify_all();
    }
    bool waitHolding() {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(10), [&] { return holding; });
    }
    QByteArray of(const QString& name) {
        std::lock_guard<std::mutex> lock(mutex);
        return fed.value(name);
    }
};

// Appends to a file and tells the hasher, as the connection does.
void append(Dovel::DownloadHasher& hasher, const QString& name, QFile& file,
            const QByteArray& bytes, bool whole) {
    ASSERT_EQ(file.write(bytes), bytes.size());
    hasher.written(name, file.size(), whole);
}

// A folder for the downloads, and hashers whose feed goes to the recorder.
class DownloadHasher : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dir.isValid()); }

    Dovel::DownloadHasher& start(int threads) {
        owned = std::make_unique<Dovel::DownloadHasher>(
            threads,
            [this](const QString& name, const QByteArray& bytes) { recorder.feed(name, bytes); },
            Dovel::DownloadHasher::DefaultMaxLagBytes);
        return *owned;
    }
    // A new file of the folder, open as the connection writes it, and its download begun.
    std::unique_ptr<QFile> begun(Dovel::DownloadHasher& hasher, const QString& name) {
        auto file = std::make_unique<QFile>(dir.path() + name);
        EXPECT_TRUE(file->open(QIODevice::WriteOnly | QIODevice::Unbuffered));
        hasher.begin(name, file->fileName());
        return file;
    }

    QTemporaryDir dir;
    Recorder recorder;
    std::unique_ptr<Dovel::DownloadHasher> owned; // goes first: it feeds the recorder
};

TEST_F(DownloadHasher, TwoFilesHashAtOnceEachInTheOrderOfItsBytes) {
    Dovel::DownloadHasher& hasher = start(2);
    const QByteArray a = patternBytes(3 * int(Dovel::DownloadHasher::ChunkBytes) + 17, 1);
    const QByteArray b = patternBytes(100000, 2);

    recorder.hold("/a");
    const auto openA = begun(hasher, "/a");
    QFile& fileA = *openA;
    append(hasher, "/a", fileA, a.left(1000), false);
    ASSERT_TRUE(recorder.waitHolding()); // /a's thread is stuck in its first feed

    // The other thread takes /b meanwhile.
    append(hasher, "/b", *begun(hasher, "/b"), b, true);
    EXPECT_TRUE(hasher.finish("/b"));
    EXPECT_EQ(recorder.of("/b"), b);
    EXPECT_FALSE(hasher.isDone("/a"));

    // The rest of /a is written in pieces larger and smaller than a chunk.
    recorder.hold(QString());
    append(hasher, "/a", fileA, a.mid(1000, int(Dovel::DownloadHasher::ChunkBytes) * 2), false);
    append(hasher, "/a", fileA, a.mid(1000 + int(Dovel::DownloadHasher::ChunkBytes) * 2), true);
    ASSERT_TRUE(waitUntil([&] { return hasher.isDone("/a"); }));
    EXPECT_TRUE(hasher.finish("/a"));
    EXPECT_EQ(recorder.of("/a"), a);
    EXPECT_EQ(hasher.count(), 0);
}

TEST_F(DownloadHasher, ACancelWaitsForTheFeedAndNothingOfTheDownloadIsFedAfter) {
    Dovel::DownloadHasher& hasher = start(1);
    const QByteArray first = patternBytes(5000, 3);
    const QByteArray second = patternBytes(7000, 4);

    recorder.hold("/x");
    const auto open = begun(hasher, "/x");
    QFile& file = *open;
    append(hasher, "/x", file, first, false);
    ASSERT_TRUE(recorder.waitHolding());
    std::atomic<pid_t> cancelling{0};
    std::atomic<bool> cancelled{false};
    std::thread owner([&] {
        cancelling.store(currentTid());
        hasher.cancel("/x");
        cancelled.store(true);
    });
    // Checked without returning early: the thread must be released and joined.
    EXPECT_TRUE(waitUntil([&] { return cancelling.load() != 0; }) &&
                waitUntilBlocked(cancelling.load()));
    EXPECT_FALSE(cancelled.load());
    recorder.hold(QString()); // the feed under way ends; the cancel returns
    owner.join();
    EXPECT_EQ(hasher.count(), 0);
    EXPECT_TRUE(hasher.isDone("/x")); // forgotten: nothing to wait for
    EXPECT_FALSE(hasher.finish("/x"));

    // Begun again from a new file: only its bytes reach the feed.
    ASSERT_TRUE(file.resize(0));
    file.seek(0);
    hasher.begin("/x", file.fileName());
    append(hasher, "/x", file, second, true);
    EXPECT_TRUE(hasher.finish("/x"));
    EXPECT_EQ(recorder.of("/x"), first + second);
}

} // namespace
