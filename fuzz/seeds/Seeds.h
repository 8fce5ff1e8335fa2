// The seeds of the fuzz targets' corpora (fuzz/corpus/<target>/), made by the library's
// own code so that a change of a wire format can be followed by writing them again
// instead of leaving a corpus that silently stops reaching the code it was made for.
// One function per target; each returns file names and contents. Single-threaded.
#pragma once

#include <QByteArray>
#include <QString>

#include <utility>
#include <vector>

namespace FuzzSeeds {

using Seeds = std::vector<std::pair<QString, QByteArray>>;

Seeds binarydata();
Seeds bundle();
Seeds files();
Seeds line();
Seeds session();
Seeds slices();
Seeds treejson();

} // namespace FuzzSeeds
