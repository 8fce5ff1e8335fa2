// The tree file format of the dovel tool: a JSON document that describes a tree of
// nodes and typed attributes. Loads such a document into a Tessel::Node, dumps a tree
// in the same format (so that a dump loads back to the same types and values), and
// converts single values for setting and watching attributes.
//
// Thread contract: a TreeJson is read-only once built, so its const operations may run
// on several threads at once; the trees they read or change belong to the caller's
// tree thread.
//
// Format. A JSON object is a node; each key is the name of a child (not empty, no "/").
// Leaves written plainly:
//   true / false                      bool
//   a whole number that fits 32 bits  int
//   any other number                  float
//   a string                          string
//   an array of strings               stringlist
// Every other value (and a value whose plain form would read back as another type) is
// an object {"@type": NAME, "value": VALUE}; an object with the key "@type" is always a
// value, never a node. Names and value forms:
//
//   code  @type           value
//   1     bool            true or false
//   2     color           [r, g, b, a] floats, or a text "#rrggbb", "#rrggbbaa"
//   3     float           number
//   4     double          number
//   9     int             whole number, -2^31 .. 2^31-1
//   10    uint            whole number, 0 .. 2^32-1
//   11    int64           whole number, or a string of decimal digits
//   12    uint64          whole number, or a string of decimal digits
//   13    recti           [x0, y0, x1, y1] ints
//   14    rectf           [x0, y0, x1, y1] floats
//   15    rectd           [x0, y0, x1, y1] doubles
//   16    vec2i           [x, y] ints
//   17    vec2f           [x, y] floats
//   19    vec3i           [x, y, z] ints
//   20    vec3f           [x, y, z] floats
//   22    vec4i           [x, y, z, w] ints
//   23    vec4f           [x, y, z, w] floats
//   26    mat2f           4 floats, row by row, in one flat array
//   29    mat3f           9 floats, row by row
//   32    mat4f           16 floats, row by row
//   34    timestamp       microseconds since 1970 (UTC), as int64
//   35    string          string
//   36    stringlist      array of strings
//   40    float-vector    array of floats
//   41    vec2f-vector    array of [x, y] float pairs
//   42    int-vector      array of ints
//   43    uint-vector     array of uints
//   44    string-vector   array of strings
//   45    grid8u          {"width": W, "height": H, "data": "<base64 of the W x H cell
//                         bytes, row by row>"}; the data must hold exactly W x H bytes,
//                         and a grid of width 0 has height 0
//   46    spline          array of [x, y] float pairs (the control points)
//   47    enum            int, or the name of a value; beside "value" an optional
//                         "names": {"NAME": int, ...} (one name per value)
//   48    colorpma        [r, g, b, a] floats, r, g, b already multiplied by a
//   49    vec2f-separate  [x, y] floats (a vector whose components are attributes)
//   50    sizef           [width, height] floats
//   51    asset           string (a path in the asset folder)
//   52    sizei           [width, height] ints
//
// Numbers: floats and doubles are written with the shortest text that reads back to the
// same bits. JSON has no NaN, infinity or negative zero: wherever a float or double is
// expected the strings "nan", "inf", "-inf" and "-0" stand for them (every NaN reads back
// as the quiet NaN). 64-bit integers of 2^53 or more in magnitude are written as strings
// of decimal digits; both numbers and strings are read, but such a number is refused
// rather than rounded. A whole float, a uint, int64, uint64, double
// and every composite type are written in the "@type" form.
//
// Dumping: keys are written in sorted order (the order of children is not kept). An
// alias is written as the value of its final target, so it loads back as a plain
// attribute of the target's type; an alias without a target, or one that leads to a
// node, is skipped. Children whose name cannot be a key ("", "@type", names holding
// "/") and attributes of types outside the table are skipped with a warning.
//
// Loading: values become the attributes' defaults (layer 0). Errors are one line: a
// malformed document gives its line and column, every other error the slash-separated
// path of the value at fault and what was expected there. A key written twice in one
// object is an error too (with its line and column), not a silent choice of one.
#pragma once

#include "Dovel/bundle/Bundle.h"
#include "Dovel/types/TypeRegistry.h"

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <memory>

namespace Tessel {
class Attribute;
class Node;
} // namespace Tessel

namespace DovelTool {

struct JsonType;

class TreeJson {
public:
    TreeJson();
    ~TreeJson();

    // Adds the children that the document describes to `root`. On error nothing is
    // added (the tree is built aside first), `error` (may be null) says why and false
    // is returned. A name that `root` already holds is an error.
    bool load(const QByteArray& json, Tessel::Node& root, QString* error) const;
    bool load(const QJsonObject& document, Tessel::Node& root, QString* error) const;

    // The document of the tree under `root` (root itself is the top-level object).
    QJsonObject dump(const Tessel::Node& root) const;
    QByteArray dumpBytes(const Tessel::Node& root,
                         QJsonDocument::JsonFormat format = QJsonDocument::Indented) const;

    // The JSON form of one attribute as the dump writes it (a node gives its subtree).
    // False when it has none (an alias without a target, a type outside the table).
    bool toJson(Tessel::Attribute& attribute, QJsonValue& out) const;
    // The type name the tree-file format gives the attribute ("float", "vec3f", ...):
    // "node" for a node, an alias's target's type; empty when it has none.
    QString typeName(Tessel::Attribute& attribute) const;
    // `text` (UTF-8, NUL bytes and all) as a JSON string literal, quotes and escapes
    // included (see printable).
    static QByteArray jsonString(const QByteArray& text);
    // `value` as compact JSON text, for one-line output ("PATH = VALUE").
    static QByteArray valueText(const QJsonValue& value);
    // JSON text as written, with what a terminal would act on or a reader could not see
    // escaped as \uXXXX: DEL, the C1 controls, the line and paragraph separators and the
    // marks that reorder text. JSON puts them only inside strings, where the escape
    // stands for the same character.
    static QByteArray printable(const QByteArray& json);

    // Writes `value` into an existing attribute at layer 2, the layer of remote updates;
    // the attribute's type decides how the value is read, and the "@type" form is
    // accepted when it names that type. An alias is followed to its final target. False
    // (nothing changed) with an error naming `path` when the value does not fit.
    bool assign(Tessel::Attribute& attribute, const QJsonValue& value, const QByteArray& path,
                QString* error) const;

    // assign() in two steps, so that several values can be checked before any is
    // written: prepare() converts `value` for the attribute (or its alias target) and
    // changes nothing; commit() writes a prepared value at layer 2. The attribute must
    // still exist when committed.
    struct Assignment {
        Tessel::Attribute* target = nullptr; // not owned
        uint32_t code = 0;
        Dovel::Bundle bundle;
        QByteArray path;
    };
    bool prepare(Tessel::Attribute& attribute, const QJsonValue& value, const QByteArray& path,
                 Assignment& out, QString* error) const;
    bool commit(const Assignment& assignment, QString* error) const;

    // A new detached attribute of the type that `value` implies (a node for an object
    // without "@type"), holding the value as its default. Null with an error naming
    // `path` when the value has no valid form.
    std::unique_ptr<Tessel::Attribute> create(const QJsonValue& value, const QByteArray& path,
                                              QString* error) const;

private:
    std::unique_ptr<Tessel::Attribute> build(const QJsonValue& value, const QByteArray& path,
                                             QString& error) const;
    bool fill(Tessel::Node& node, const QJsonObject& object, const QByteArray& path,
              QString& error) const;
    bool apply(Tessel::Attribute& target, uint32_t code, const Dovel::Bundle& bundle,
               const QByteArray& path, QString& error) const;
    void dumpNode(const Tessel::Node& node, const QByteArray& path, QJsonObject& out) const;
    bool valueJson(Tessel::Attribute& attribute, const QByteArray& path, QJsonValue& out) const;

    Dovel::TypeRegistry registry;
};

} // namespace DovelTool
