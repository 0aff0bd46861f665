#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "mivra/common/runtime/CritSec.h"

namespace Mivra::Media {

/// The listeners of one event, in ascending order of their ids; part of the objects that have events, not for
/// applications. Dispatch walks an immutable table behind one atomic pointer: no lock, no allocation, from
/// any number of threads. Add and Remove run under the owner's lock, publish a new table and retire the old
/// one, which is freed once no dispatch is in flight; neither ever waits for a dispatch. A dispatch in flight
/// goes on with the table it began with, so listeners may be added and removed from inside a callback. The
/// owner outlives every dispatch.
template <typename Callback>
class ListenerMap {
public:
    ListenerMap() noexcept = default;
    ListenerMap(const ListenerMap&) = delete;
    ListenerMap& operator=(const ListenerMap&) = delete;
    ~ListenerMap() {
        delete current.load(std::memory_order_relaxed);
        freeTables(retired.load(std::memory_order_relaxed));
    }

    bool Empty() const noexcept { return current.load(std::memory_order_acquire) == nullptr; }

    /// The id must be above every id added before. std::bad_alloc leaves the map as it was.
    void Add(std::int64_t id, Callback callback) {
        auto entry = std::make_shared<Entry>(id, std::move(callback));
        const Table* old = current.load(std::memory_order_relaxed);
        std::unique_ptr<Table> table = copyWithout(old, id, 1);
        table->entries.push_back(std::move(entry));
        publish(table.release(), old);
    }

    /// An unknown id is ignored. Without memory for a smaller table the entry is struck out in place.
    void Remove(std::int64_t id) noexcept {
        const Table* old = current.load(std::memory_order_relaxed);
        Entry* entry = find(old, id);
        if (entry == nullptr) {
            return;
        }
        try {
            std::unique_ptr<Table> table = copyWithout(old, id, 0);
            publish(table->entries.empty() ? nullptr : table.release(), old);
        } catch (const std::bad_alloc&) {
            entry->removed.store(true, std::memory_order_relaxed);
        }
    }

    /// Frees what is retired, unless a dispatch is in flight. Destroys callbacks, so it is called without a
    /// lock.
    void Reclaim() noexcept {
        // In one order with the count: of a removal and the last dispatch in flight one sees the table.
        while (retired.load() != nullptr && inFlight.load() == 0) {
            // Whatever is on this list left `current` before the count is looked at once more: a dispatch
            // that still walks one of these tables counted itself in before that.
            Table* list = retired.exchange(nullptr);
            if (inFlight.load() == 0) {
                freeTables(list);
                return;
            }
            while (list != nullptr) {
                retire(std::exchange(list, list->next));
            }
        }
    }

    /// Calls visit(callback) for every listener, in id order. What a visit throws ends the walk.
    template <typename Visit>
    void ForEach(Visit&& visit) {
        const InFlight guard(*this);
        const Table* table = current.load();
        if (table == nullptr) {
            return;
        }
        for (const auto& entry : table->entries) {
            if (!entry->removed.load(std::memory_order_relaxed)) {
                visit(std::as_const(entry->callback));
            }
        }
    }

    /// Calls every listener with the arguments. std::bad_function_call from an empty callback.
    template <typename... Arguments>
    void Dispatch(const Arguments&... arguments) {
        ForEach([&](const Callback& callback) { callback(arguments...); });
    }

private:
    struct Entry {
        Entry(std::int64_t listenerId, Callback&& listener) : id(listenerId), callback(std::move(listener)) {}
        const std::int64_t id;
        const Callback callback;
        std::atomic<bool> removed{false};
    };

    struct Table {
        std::vector<std::shared_ptr<Entry>> entries;
        Table* next = nullptr;  // in the list of retired tables
    };

    class InFlight {
    public:
        explicit InFlight(ListenerMap& listeners) noexcept : map(listeners) { map.inFlight.fetch_add(1); }
        ~InFlight() {
            if (map.inFlight.fetch_sub(1) == 1) {
                map.Reclaim();
            }
        }
        InFlight(const InFlight&) = delete;
        InFlight& operator=(const InFlight&) = delete;

    private:
        ListenerMap& map;
    };

    static Entry* find(const Table* table, std::int64_t id) noexcept {
        if (table != nullptr) {
            for (const auto& entry : table->entries) {
                if (entry->id == id) {
                    return entry.get();
                }
            }
        }
        return nullptr;
    }

    static std::unique_ptr<Table> copyWithout(const Table* old, std::int64_t id, std::size_t room) {
        auto table = std::make_unique<Table>();
        if (old != nullptr) {
            table->entries.reserve(old->entries.size() + room);
            for (const auto& entry : old->entries) {
                if (entry->id != id && !entry->removed.load(std::memory_order_relaxed)) {
                    table->entries.push_back(entry);
                }
            }
        }
        return table;
    }

    void publish(Table* table, const Table* old) noexcept {
        current.store(table);
        if (old != nullptr) {
            retire(const_cast<Table*>(old));
        }
    }

    void retire(Table* table) noexcept {
        table->next = retired.load(std::memory_order_relaxed);
        while (!retired.compare_exchange_weak(table->next, table)) {
        }
    }

    static void freeTables(Table* list) noexcept {
        while (list != nullptr) {
            delete std::exchange(list, list->next);
        }
    }

    std::atomic<Table*> current{nullptr};
    std::atomic<Table*> retired{nullptr};
    std::atomic<std::int32_t> inFlight{0};
};

/// Adds a listener under its owner's lock with the owner's next id, and returns the id.
template <typename Callback>
std::int64_t AddListener(Common::CritSec& lock, std::int64_t& nextListenerId,
                         ListenerMap<Callback>& listeners, Callback callback) MIVRA_EXCLUDES(lock) {
    std::int64_t id = 0;
    {
        Common::AutoLock guard(lock);
        id = nextListenerId;
        listeners.Add(id, std::move(callback));
        ++nextListenerId;
    }
    listeners.Reclaim();
    return id;
}

/// Removes a listener under its owner's lock; an unknown id is ignored.
template <typename Callback>
void RemoveListener(Common::CritSec& lock, ListenerMap<Callback>& listeners, std::int64_t id)
    MIVRA_EXCLUDES(lock) {
    {
        Common::AutoLock guard(lock);
        listeners.Remove(id);
    }
    listeners.Reclaim();
}

}  // namespace Mivra::Media
