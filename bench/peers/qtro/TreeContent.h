// The tree of `initial`: attribute i lives at scene/groupG/itemI/NAME, four to an item
// and a hundred items to a group: x and y are floats, label a 16-character string and
// position a QVector3D, so half the attributes are floats, a quarter strings and a
// quarter vectors. Values follow from i alone: the source builds the tree from them
// and the replica checks what it received against them. Stateless; any thread.
#pragma once

#include <QString>
#include <QVector3D>

namespace QtroBench {

class TreeContent {
public:
    enum Kind { Float, String, Vector };

    static Kind kind(int i);
    static QString path(int i);
    static float floatValue(int i);
    static QString stringValue(int i);
    static QVector3D vectorValue(int i);
};

} // namespace QtroBench
