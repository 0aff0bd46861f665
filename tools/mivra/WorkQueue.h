#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace Mivra::Tool {

/// What one thread hands to another, in order. Any thread may call it.
template <typename T>
class WorkQueue {
public:
    /// most: so many may wait, then Push does; 0: any number.
    explicit WorkQueue(std::size_t most) : limit(most) {}

    /// False, and the item dropped, once the queue is closed.
    bool Push(T item) {
        std::unique_lock hold(lock);
        roomMade.wait(hold, [this] { return closed || limit == 0 || items.size() < limit; });
        if (closed) {
            return false;
        }
        items.push_back(std::move(item));
        itemCame.notify_one();
        return true;
    }

    /// Waits for one; nothing once the queue is closed and empty.
    std::optional<T> Pop() {
        std::unique_lock hold(lock);
        itemCame.wait(hold, [this] { return closed || !items.empty(); });
        if (items.empty()) {
            return std::nullopt;
        }
        std::optional<T> item(std::move(items.front()));
        items.pop_front();
        roomMade.notify_one();
        return item;
    }

    /// Nothing more comes in; what waits is still handed out.
    void Close() {
        const std::lock_guard hold(lock);
        closed = true;
        itemCame.notify_all();
        roomMade.notify_all();
    }

    /// Closes it and drops what waits.
    void Discard() {
        std::deque<T> dropped;
        {
            const std::lock_guard hold(lock);
            closed = true;
            dropped.swap(items);
        }
        itemCame.notify_all();
        roomMade.notify_all();
    }

private:
    const std::size_t limit;
    std::mutex lock;
    std::condition_variable itemCame;
    std::condition_variable roomMade;
    std::deque<T> items;
    bool closed = false;
};

}  // namespace Mivra::Tool
