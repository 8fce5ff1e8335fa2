// A path pattern as the sync rules write them: `*` stands for one or more characters
// other than '/', `**` for one or more of any; everything else stands for itself. The
// whole path must match. Matching simulates the pattern's automaton, so its cost is the
// path's length times the pattern's, whatever the pattern: a peer's pattern cannot make
// it backtrack.
//
// A value type; const calls may run on any thread.
#pragma once

#include <QByteArray>

#include <vector>

namespace Dovel {

class PathPattern {
public:
    explicit PathPattern(const QByteArray& pattern);

    bool matches(const QByteArray& path) const;
    int wildcards() const { return wildcardCount; }

private:
    enum Kind : unsigned char {
        Byte,     // the byte itself
        OneName,  // one byte other than '/'
        ManyName, // any number of bytes other than '/'
        OneAny,   // one byte
        ManyAny,  // any number of bytes
    };
    struct Token {
        Kind kind;
        char byte;
    };
    // Adds `state` and what it reaches without a byte to `set`.
    void enter(std::vector<unsigned char>& set, std::size_t state) const;

    std::vector<Token> tokens;
    int wildcardCount = 0;
};

} // namespace Dovel
