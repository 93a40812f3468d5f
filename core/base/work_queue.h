#ifndef TSE_CORE_WORK_QUEUE_H
#define TSE_CORE_WORK_QUEUE_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <optional>

#include "thread_annotations.h"

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
        ExclusiveLock<Mutex> lock(mutex_);
        while (items_.size() >= capacity_) notFull_.wait(mutex_);
        items_.push_back(std::move(item));
        notEmpty_.notify_one();
    }

    // Waits for an item; nullopt once the queue is closed and empty.
    std::optional<T> pop()
    {
        ExclusiveLock<Mutex> lock(mutex_);
        while (items_.empty() && !closed_) notEmpty_.wait(mutex_);
        if (items_.empty()) return std::nullopt;
        T item = std::move(items_.front());
        items_.pop_front();
        notFull_.notify_one();
        return item;
    }

    void close()
    {
        ExclusiveLock<Mutex> lock(mutex_);
        closed_ = true;
        notEmpty_.notify_all();
    }

private:
    const size_t capacity_;
    Mutex mutex_;
    // Waiting releases the Mutex itself, which the lock above holds again
    // once the wait returns.
    std::condition_variable_any notEmpty_, notFull_;
    std::deque<T> items_ TSE_GUARDED_BY(mutex_);
    bool closed_ TSE_GUARDED_BY(mutex_) = false;
};

}  // namespace tse

#endif
