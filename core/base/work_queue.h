#ifndef TSE_CORE_WORK_QUEUE_H
#define TSE_CORE_WORK_QUEUE_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>

namespace tse {

// A queue between one producer and several consumers that holds at most
// `capacity` items, so a fast reader cannot outrun the workers by more than
// that and memory stays bounded.
template <typename T>
class WorkQueue {
public:
    explicit WorkQueue(size_t capacity) : capacity_(capacity) {}

    void push(T item)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        notFull_.wait(lock, [&] { return items_.size() < capacity_; });
        items_.push_back(std::move(item));
        notEmpty_.notify_one();
    }

    // Waits for an item; nullopt once the queue is closed and empty.
    std::optional<T> pop()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        notEmpty_.wait(lock, [&] { return !items_.empty() || closed_; });
        if (items_.empty()) return std::nullopt;
        T item = std::move(items_.front());
        items_.pop_front();
        notFull_.notify_one();
        return item;
    }

    void close()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
        notEmpty_.notify_all();
    }

private:
    const size_t capacity_;
    std::mutex mutex_;
    std::condition_variable notEmpty_, notFull_;
    std::deque<T> items_;
    bool closed_ = false;
};

}  // namespace tse

#endif
