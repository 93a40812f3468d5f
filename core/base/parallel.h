#ifndef TSE_CORE_PARALLEL_H
#define TSE_CORE_PARALLEL_H

#include <algorithm>
#include <condition_variable>
#include <atomic>
#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

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
        std::mutex lock;
        std::condition_variable open;
        bool decided = false;
        size_t allowed = 0;
    };
    auto gate = std::make_shared<Gate>();
    gate->body = std::move(body);
    std::vector<std::thread> threads;
    try {
        for (size_t i = 0; i < wanted; ++i) {
            threads.emplace_back([gate, i] {
                {
                    std::unique_lock<std::mutex> lock(gate->lock);
                    gate->open.wait(lock, [&] { return gate->decided; });
                    if (i >= gate->allowed) return;
                }
                gate->body();
            });
        }
    } catch (const std::system_error&) {
    }
    {
        std::lock_guard<std::mutex> lock(gate->lock);
        gate->allowed = threads.size() == wanted ? threads.size() : threads.size() / 2;
        gate->decided = true;
    }
    gate->open.notify_all();
    for (size_t i = gate->allowed; i < threads.size(); ++i) threads[i].join();
    threads.resize(gate->allowed);
    return threads;
}

// Calls work(i) for every i below count on up to `jobs` threads; items are
// handed out one by one, so slow items do not hold up a whole share. The
// first exception is passed on after all threads have stopped.
inline void parallelFor(size_t count, unsigned jobs, const std::function<void(size_t)>& work)
{
    jobs = static_cast<unsigned>(std::min<size_t>(std::max(1u, jobs), std::max<size_t>(count, 1)));
    std::atomic<size_t> next{0};
    std::exception_ptr failure;
    std::mutex failureLock;
    auto worker = [&] {
        for (size_t i = next++; i < count; i = next++) {
            try {
                work(i);
            } catch (...) {
                std::lock_guard<std::mutex> lock(failureLock);
                if (!failure) failure = std::current_exception();
                next = count;
            }
        }
    };
    // A system out of threads or memory gets the work done on fewer; this
    // thread works along in any case.
    std::vector<std::thread> threads = startThreads(jobs - 1, worker);
    worker();
    for (std::thread& thread : threads) thread.join();
    if (failure) std::rethrow_exception(failure);
}

}  // namespace tse

#endif
