#include "TreeSource.h"

#include "TreeContent.h"

namespace QtroBench {

TreeSource::TreeSource(int attributes) {
    QHash<QString, float> floats;
    QHash<QString, QString> strings;
    QHash<QString, QVector3D> vectors;
    floats.reserve(attributes / 2 + 1);
    strings.reserve(attributes / 4 + 1);
    vectors.reserve(attributes / 4 + 1);
    for (int i = 0; i < attributes; ++i) {
        switch (TreeContent::kind(i)) {
        case TreeContent::Float:
            floats.insert(TreeContent::path(i), TreeContent::floatValue(i));
            break;
        case TreeContent::String:
            strings.insert(TreeContent::path(i), TreeContent::stringValue(i));
            break;
        case TreeContent::Vector:
            vectors.insert(TreeContent::path(i), TreeContent::vectorValue(i));
            break;
        }
    }
    setFloats(floats);
    setStrings(strings);
    setVectors(vectors);
}

} // namespace QtroBench
