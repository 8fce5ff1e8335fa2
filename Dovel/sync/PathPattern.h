// A path pattern as the sync rules write them: `*` stands for one or more characters
// other than '/', `**` for one or more of any; everything else stands for itself. The
// whole path must match. Matching simulates the pattern's automaton, so its cost is the
// path's length times the pattern's states that are live, at most the pattern's length,
// whatever the pattern: a peer's pattern cannot make it backtrack. Most patterns keep a
// state or two live.
//
// A value type; const calls may run on any thread.
#pragma once

#include <QByteArray>

#include <cstdint>
#include <vector>

namespace Dovel {

class PathPattern {
public:
    explicit PathPattern(const QByteArray& pattern);

    // Whether the whole of `path` matches. With `steps`, each path byte taken against
    // each live state costs a step from it; a match that would cost more than is left
    // stops there, false, with *steps below zero.
    bool matches(const QByteArray& path, int64_t* steps = nullptr) const;
    int wildcards() const { return wildcardCount; }
    // The automaton's states: at most this many are live for a byte.
    int states() const { return int(tokens.size()) + 1; }

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
    // States of the automaton, marked and listed.
    struct StateSet {
        explicit StateSet(std::size_t states) : has(states, 0) {}
        std::vector<unsigned char> has;
        std::vector<uint32_t> list;
    };
    // Adds `state` and what it reaches without a byte to `set`.
    void enter(StateSet& set, std::size_t state) const;

    std::vector<Token> tokens;
    int wildcardCount = 0;
};

} // namespace Dovel
