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

void PathPattern::enter(StateSet& set, std::size_t state) const {
    // A "many" token may take nothing: its state also stands in the next one.
    while (!set.has[state]) {
        set.has[state] = 1;
        set.list.push_back(uint32_t(state));
        if (state == tokens.size())
            return;
        const Kind kind = tokens[state].kind;
        if (kind != ManyName && kind != ManyAny)
            return;
        ++state;
    }
}

bool PathPattern::matches(const QByteArray& path, int64_t* steps) const {
    const std::size_t accepting = tokens.size();
    StateSet current(accepting + 1);
    StateSet next(accepting + 1);
    enter(current, 0);
    for (const char c : path) {
        if (steps && (*steps -= int64_t(current.list.size())) < 0)
            return false;
        for (const uint32_t state : next.list)
            next.has[state] = 0;
        next.list.clear();
        for (const uint32_t state : current.list) {
            if (state == accepting)
                continue; // takes no more bytes
            const Token& token = tokens[state];
            switch (token.kind) {
            case Byte:
                if (c == token.byte)
                    enter(next, state + 1);
                break;
            case OneName:
            case OneAny:
                if (token.kind == OneAny || c != '/')
                    enter(next, state + 1);
                break;
            case ManyName:
            case ManyAny:
                if (token.kind == ManyAny || c != '/')
                    enter(next, state);
                break;
            }
        }
        if (next.list.empty())
            return false;
        std::swap(current, next);
    }
    return current.has[accepting] != 0;
}

} // namespace Dovel
