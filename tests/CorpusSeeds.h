// Seeds of a fuzz target's corpus, made by the library's own code. With
// DOVEL_WRITE_CORPUS naming a folder the seeds are written there (fuzz/corpus/<target>
// is the one kept in the tree); otherwise each seed must equal its file in
// fuzz/corpus/<target>/, so that a change of a wire format shows as a stale corpus
// instead of a corpus that silently stops reaching the code it was made for.
#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace CorpusSeeds {

using Seeds = std::vector<std::pair<QString, QByteArray>>;

inline QString keptFolder(const char* target) {
    return QFileInfo(QStringLiteral(__FILE__)).absolutePath() + QStringLiteral("/../fuzz/corpus/") +
           QString::fromLatin1(target);
}

inline void writeOrCompare(const char* target, const Seeds& seeds) {
    const QByteArray requested = qgetenv("DOVEL_WRITE_CORPUS");
    if (!requested.isEmpty()) {
        const QString folder = QString::fromLocal8Bit(requested);
        ASSERT_TRUE(QDir().mkpath(folder));
        for (const auto& seed : seeds) {
            QFile file(folder + QLatin1Char('/') + seed.first);
            ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
            ASSERT_EQ(file.write(seed.second), seed.second.size());
        }
        return;
    }
    for (const auto& seed : seeds) {
        QFile file(keptFolder(target) + QLatin1Char('/') + seed.first);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly)) << file.fileName().toStdString();
        EXPECT_TRUE(file.readAll() == seed.second) << "stale seed " << file.fileName().toStdString()
                                                   << ": rewrite it with DOVEL_WRITE_CORPUS";
    }
}

} // namespace CorpusSeeds
