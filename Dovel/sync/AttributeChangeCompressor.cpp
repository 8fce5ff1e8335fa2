#include "Dovel/sync/AttributeChangeCompressor.h"

#include <QHash>

#include <algorithm>

namespace Dovel {

void AttributeChangeCompressor::compress(const std::vector<NodeWatcher::Event>& events,
                                         std::vector<ChangeData>& out) {
    out.clear();
    scratch.clear();
    laterChanged.clear();
    laterRemoved.clear();
    laterAdded.clear();
    added.clear();

    // Additions of each symbol in the period, counted down as the backward walk passes
    // them, so that a removal can tell whether an addition still stands before it.
    QHash<uint32_t, int> additionsBefore;
    for (const NodeWatcher::Event& e : events) {
        if (e.type == NodeWatcher::AttributeAdded)
            ++additionsBefore[e.symbol];
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
            --additionsBefore[symbol];
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

} // namespace Dovel
