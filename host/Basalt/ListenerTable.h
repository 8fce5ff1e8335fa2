// Callbacks that any thread may add and remove while another thread calls them. A change
// copies the table and swaps the copy in under a lock; a call takes only a pointer to the
// current table under that lock and runs its callbacks with no lock held, so a callback
// may add or remove callbacks (the change holds from the next call) and a call never
// waits for one. Suits tables that change seldom and are called often.
//
// Thread-safe. Ids are handed out from 0 up; callbacks run in the order they were added.
#pragma once

#include "Basalt/RwLock.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <utility>
#include <vector>

namespace Basalt {

template <typename... Args> class ListenerTable {
public:
    using Callback = std::function<void(Args...)>;

    ListenerTable() : table(std::make_shared<const Table>()) {}
    ListenerTable(const ListenerTable&) = delete;
    ListenerTable& operator=(const ListenerTable&) = delete;

    long add(const Callback& callback) {
        std::shared_ptr<const Table> old; // goes after the lock (see remove)
        std::unique_lock<RwLock> locker(lock);
        auto copy = std::make_shared<Table>(*table);
        const long id = nextId++;
        copy->emplace_back(id, callback); // ids grow: the table stays in their order
        old = std::exchange(table, std::move(copy));
        return id;
    }
    // Does nothing for an unknown id.
    void remove(long id) {
        // The table replaced, and with it the removed callback, goes once the lock is
        // released: what a callback holds may add or remove callbacks as it goes.
        std::shared_ptr<const Table> old;
        std::unique_lock<RwLock> locker(lock);
        const auto byId = [id](const Entry& entry) { return entry.first == id; };
        if (std::none_of(table->begin(), table->end(), byId))
            return;
        auto copy = std::make_shared<Table>(*table);
        copy->erase(std::find_if(copy->begin(), copy->end(), byId));
        old = std::exchange(table, std::move(copy));
    }
    void call(Args... args) const {
        std::shared_ptr<const Table> current;
        {
            std::shared_lock<RwLock> locker(lock);
            current = table;
        }
        for (const auto& entry : *current)
            entry.second(args...);
    }

private:
    // In the order of the ids, one block: a call walks it for every event.
    using Entry = std::pair<long, Callback>;
    using Table = std::vector<Entry>;
    mutable RwLock lock;
    std::shared_ptr<const Table> table;
    long nextId = 0;
};

} // namespace Basalt
