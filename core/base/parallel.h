#ifndef TSE_CORE_PARALLEL_H
#define TSE_CORE_PARALLEL_H

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <exception>
#include <functional>
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
    std::vector<std::thread> threads;
    // A system out of threads or memory gets the work done on fewer; this
    // thread works along in any case.
    try {
        for (unsigned t = 1; t < jobs; ++t) threads.emplace_back(worker);
    } catch (const std::system_error&) {
    }
    worker();
    for (std::thread& thread : threads) thread.join();
    if (failure) std::rethrow_exception(failure);
}

}  // namespace tse

#endif
