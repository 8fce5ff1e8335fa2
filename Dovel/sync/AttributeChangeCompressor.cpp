#include "Dovel/sync/AttributeChangeCompressor.h"

#include <QHash>

#include <algorithm>

namespace Dovel {

void AttributeChangeCompressor::compress(const std::vector<NodeWatcher::Event>& events,
                                         std::vector<ChangeData>& out) {
    // What a burst (a session's first announcement) left behind is freed by the next,
    // smaller period.
    const std::size_t expected = events.size();
    clearAndTrim(out, expected);
    clearAndTrim(scratch, expected);
    if (std::all_of(events.begin(), events.end(), [](const NodeWatcher::Event& e) {
            return e.type == NodeWatcher::AttributeAdded;
        })) {
        compressAdditions(events, out);
        return;
    }
    const bool removals =
        std::any_of(events.begin(), events.end(), [](const NodeWatcher::Event& e) {
            return e.type == NodeWatcher::AttributeRemoved;
        });
    // Every symbol the sets take comes with an event: removing those empties them for
    // the next call, also when this one throws.
    struct Emptier {
        AttributeChangeCompressor& c;
        const std::vector<NodeWatcher::Event>& events;
        ~Emptier() {
            for (const NodeWatcher::Event& e : events) {
                c.laterChanged.remove(e.symbol);
                c.laterRemoved.remove(e.symbol);
                c.laterAdded.remove(e.symbol);
                c.added.remove(e.symbol);
            }
        }
    } emptier{*this, events};

    // Sized once for the period: a first announcement brings a whole tree at once.
    out.reserve(expected);
    scratch.reserve(expected);

    // Additions of each symbol removed in the period, counted down as the backward walk
    // passes them, so that a removal can tell whether an addition still stands before
    // it. Periods without removals (nearly all) count nothing.
    QHash<uint32_t, int> additionsBefore;
    if (removals)
        for (const NodeWatcher::Event& e : events)
            if (e.type == NodeWatcher::AttributeRemoved)
                additionsBefore.insert(e.symbol, 0);
    if (!additionsBefore.isEmpty())
        for (const NodeWatcher::Event& e : events)
            if (e.type == NodeWatcher::AttributeAdded) {
                auto counted = additionsBefore.find(e.symbol);
                if (counted != additionsBefore.end())
                    ++counted.value();
            }

    for (auto it = events.rbegin(); it != events.rend(); ++it) {
        const uint32_t symbol = it->symbol;
        switch (it->type) {
        case NodeWatcher::AttributeChanged:
            if (laterChanged.contains(symbol))
                continue;
            laterChanged.insert(symbol);
            scratch.push_back({NodeWatcher::AttributeChanged, symbol, 0});
            break;
        case NodeWatcher::AttributeAdded:
            if (!additionsBefore.isEmpty()) {
                auto counted = additionsBefore.find(symbol);
                if (counted != additionsBefore.end())
                    --counted.value();
            }
            // A later addition of the same attribute (the session's first announcement
            // meets the watcher's own report of it) says everything this one would.
            if (laterRemoved.contains(symbol) || laterAdded.contains(symbol))
                continue;
            laterAdded.insert(symbol);
            scratch.push_back(
                {NodeWatcher::AttributeAdded, symbol, uint32_t(laterChanged.contains(symbol))});
            break;
        case NodeWatcher::AttributeRemoved:
            laterChanged.insert(symbol);
            laterRemoved.insert(symbol);
            // The peer never heard of an attribute added earlier in this period.
            if (additionsBefore.value(symbol) > 0)
                continue;
            scratch.push_back({NodeWatcher::AttributeRemoved, symbol, 0});
            break;
        default:
            continue;
        }
    }
    std::reverse(scratch.begin(), scratch.end());

    for (const ChangeData& change : scratch) {
        if (change.type == NodeWatcher::AttributeAdded)
            added.insert(change.symbol);
        else if (change.type == NodeWatcher::AttributeChanged && added.contains(change.symbol))
            continue;
        out.push_back(change);
    }
}

void AttributeChangeCompressor::compressAdditions(const std::vector<NodeWatcher::Event>& events,
                                                  std::vector<ChangeData>& out) {
    // Only additions (a session's first announcement is a whole tree of them): the last
    // addition of each symbol stands, none carries a value, and nothing else is dropped.
    // Written straight into `out`, without the general walk's second list. A tree walked
    // in the order its names were defined, or copied from a peer, comes in rising
    // symbols: none repeats, and all stand as they are.
    out.reserve(events.size());
    const bool rising =
        std::adjacent_find(events.begin(), events.end(),
                           [](const NodeWatcher::Event& a, const NodeWatcher::Event& b) {
                               return a.symbol >= b.symbol;
                           }) == events.end();
    if (rising) {
        for (const NodeWatcher::Event& e : events)
            out.push_back({NodeWatcher::AttributeAdded, e.symbol, 0});
        return;
    }
    struct Emptier {
        SymbolBits& set;
        const std::vector<NodeWatcher::Event>& events;
        ~Emptier() {
            for (const NodeWatcher::Event& e : events)
                set.remove(e.symbol);
        }
    } emptier{laterAdded, events};
    for (auto it = events.rbegin(); it != events.rend(); ++it)
        if (!laterAdded.contains(it->symbol)) {
            laterAdded.insert(it->symbol);
            out.push_back({NodeWatcher::AttributeAdded, it->symbol, 0});
        }
    std::reverse(out.begin(), out.end());
}

} // namespace Dovel
