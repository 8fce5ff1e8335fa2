#include "Dovel/sync/PathPattern.h"

namespace Dovel {

PathPattern::PathPattern(const QByteArray& pattern) {
    for (int i = 0; i < pattern.size(); ++i) {
        if (pattern[i] != '*') {
            tokens.push_back({Byte, pattern[i]});
            continue;
        }
        ++wildcardCount;
        const bool any = i + 1 < pattern.size() && pattern[i + 1] == '*';
        if (any)
            ++i;
        tokens.push_back({any ? OneAny : OneName, 0});
        tokens.push_back({any ? ManyAny : ManyName, 0});
    }
}

void PathPattern::enter(std::vector<unsigned char>& set, std::size_t state) const {
    // A "many" token may take nothing: its state also stands in the next one.
    while (!set[state]) {
        set[state] = 1;
        if (state == tokens.size())
            return;
        const Kind kind = tokens[state].kind;
        if (kind != ManyName && kind != ManyAny)
            return;
        ++state;
    }
}

bool PathPattern::matches(const QByteArray& path) const {
    const std::size_t states = tokens.size() + 1;
    std::vector<unsigned char> current(states, 0);
    std::vector<unsigned char> next(states, 0);
    enter(current, 0);
    for (const char c : path) {
        std::fill(next.begin(), next.end(), 0);
        bool any = false;
        for (std::size_t state = 0; state + 1 < states; ++state) {
            if (!current[state])
                continue;
            const Token& token = tokens[state];
            switch (token.kind) {
            case Byte:
                if (c == token.byte) {
                    enter(next, state + 1);
                    any = true;
                }
                break;
            case OneName:
            case OneAny:
                if (token.kind == OneAny || c != '/') {
                    enter(next, state + 1);
                    any = true;
                }
                break;
            case ManyName:
            case ManyAny:
                if (token.kind == ManyAny || c != '/') {
                    enter(next, state);
                    any = true;
                }
                break;
            }
        }
        if (!any)
            return false;
        current.swap(next);
    }
    return current[states - 1] != 0;
}

} // namespace Dovel
