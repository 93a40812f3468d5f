#ifndef TSE_CORE_PARALLEL_H
#define TSE_CORE_PARALLEL_H

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <system_error>
#include <thread>
#include <vector>

#include "thread_annotations.h"

namespace tse {

// The number of workers to use when the user names none: every core.
inline unsigned defaultJobs()
{
    return std::max(1u, std::thread::hardware_concurrency());
}

// Starts up to `wanted` threads that run body(). When the system refuses
// one (out of threads or address space), only half of those it granted go
// on, and the others end before doing anything, so that the work itself
// still finds memory. The caller joins the threads returned.
inline std::vector<std::thread> startThreads(unsigned wanted, std::function<void()> body)
{
    struct Gate {
        std::function<void()> body;
        Mutex lock;
        std::condition_variable_any open;
        bool decided TSE_GUARDED_BY(lock) = false;
        size_t allowed TSE_GUARDED_BY(lock) = 0;
    };
    auto gate = std::make_shared<Gate>();
    gate->body = std::move(body);
    std::vector<std::thread> threads;
    try {
        for (size_t i = 0; i < wanted; ++i) {
            threads.emplace_back([gate, i] {
                {
                    ExclusiveLock<Mutex> lock(gate->lock);
                    while (!gate->decided) gate->open.wait(gate->lock);
                    if (i >= gate->allowed) return;
                }
                gate->body();
            });
        }
    } catch (const std::system_error&) {
    }
    const size_t allowed = threads.size() == wanted ? threads.size() : threads.size() / 2;
    {
        ExclusiveLock<Mutex> lock(gate->lock);
        gate->allowed = allowed;
        gate->decided = true;
    }
    gate->open.notify_all();
    for (size_t i = allowed; i < threads.size(); ++i) threads[i].join();
    threads.resize(allowed);
    return threads;
}

// Calls work(i) for every i below count on up to `jobs` threads; items are
// handed out one by one, so slow items do not hold up a whole share. The
// first exception is passed on after all threads have stopped.
inline void parallelFor(size_t count, unsigned jobs, const std::function<void(size_t)>& work)
{
    jobs = static_cast<unsigned>(std::min<size_t>(std::max(1u, jobs), std::max<size_t>(count, 1)));
    std::atomic<size_t> next{0};
    struct {
        Mutex lock;
        std::exception_ptr first TSE_GUARDED_BY(lock);
    } failure;
    auto worker = [&] {
        for (size_t i = next++; i < count; i = next++) {
            try {
                work(i);
            } catch (...) {
                ExclusiveLock<Mutex> lock(failure.lock);
                if (!failure.first) failure.first = std::current_exception();
                next = count;
            }
        }
    };
    // A system out of threads or memory gets the work done on fewer; this
    // thread works along in any case.
    std::vector<std::thread> threads = startThreads(jobs - 1, worker);
    worker();
    for (std::thread& thread : threads) thread.join();
    ExclusiveLock<Mutex> lock(failure.lock);
    if (failure.first) std::rethrow_exception(failure.first);
}

}  // namespace tse

#endif
