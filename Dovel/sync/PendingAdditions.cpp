#include "Dovel/sync/PendingAdditions.h"

#include "Tessel/Attribute.h"

namespace Dovel {

PendingAddition::PendingAddition(unsigned int symbol, Tessel::Attribute* attribute, bool notify)
    : symbol(symbol), attribute(attribute), notify(notify) {}

PendingAddition::~PendingAddition() {
    releaseListener();
}

void PendingAddition::releaseListener() {
    if (attribute && listenerId >= 0)
        attribute->removeListener(listenerId);
    listenerId = -1;
}

bool PendingAddition::claim() {
    uint8_t expected = 0;
    return processed.compare_exchange_strong(expected, 1);
}

void PendingAdditions::push(const Record& record) {
    std::lock_guard<std::mutex> locker(mutex);
    auto it = queue.insert(queue.end(), record);
    index[record->symbol].push_back(it);
    count.store(int(queue.size()), std::memory_order_release);
}

PendingAdditions::Record PendingAdditions::take(unsigned int symbol) {
    if (size() == 0)
        return nullptr;
    std::lock_guard<std::mutex> locker(mutex);
    auto found = index.find(symbol);
    if (found == index.end())
        return nullptr;
    auto it = found->second.front();
    found->second.erase(found->second.begin());
    if (found->second.empty())
        index.erase(found);
    Record record = std::move(*it);
    queue.erase(it);
    count.store(int(queue.size()), std::memory_order_release);
    return record; // released by the caller, outside the mutex
}

PendingAdditions::Record PendingAdditions::popFront() {
    if (size() == 0)
        return nullptr;
    std::lock_guard<std::mutex> locker(mutex);
    if (queue.empty())
        return nullptr;
    auto front = queue.begin();
    auto found = index.find((*front)->symbol);
    if (found != index.end()) {
        auto& positions = found->second;
        for (auto pos = positions.begin(); pos != positions.end(); ++pos) {
            if (*pos == front) {
                positions.erase(pos);
                break;
            }
        }
        if (positions.empty())
            index.erase(found);
    }
    Record record = std::move(*front);
    queue.erase(front);
    count.store(int(queue.size()), std::memory_order_release);
    return record;
}

bool PendingAdditions::contains(unsigned int symbol) const {
    std::lock_guard<std::mutex> locker(mutex);
    return index.count(symbol) != 0;
}

} // namespace Dovel
