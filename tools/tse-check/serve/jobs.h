#ifndef TSE_CHECK_SERVE_JOBS_H
#define TSE_CHECK_SERVE_JOBS_H

// The server's jobs: at most `running` at once on threads of their own,
// a bounded number waiting, each with its private folder, its progress and
// a flag that cancels it; a finished job is kept for a while, then
// deleted with its files.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "serve/uploads.h"

namespace tsecheck::serve {

enum class JobKind { Audit, Dsfinvk, Receipt };
enum class JobState { Queued, Running, Done, Failed, Cancelled };
const char* jobKindName(JobKind kind);     // "audit", "dsfinvk", "receipt"
const char* jobStateName(JobState state);  // "queued", "running", "done", "failed", "cancelled"

// What a job was given.
struct JobInput {
    JobKind kind = JobKind::Audit;
    std::vector<StoredFile> files;
    std::vector<std::string> texts;  // receipt QR code texts
    bool strict = false;
    bool explain = false;
};

// How far a job is: `done` of `total` in `unit` ("bytes", "rows",
// "pictures"); `logs` counts the logs an audit judged so far.
struct JobProgress {
    std::atomic<uint64_t> done{0}, total{0}, logs{0};
    std::atomic<int> stage{0};  // 0 the job's own check, 1 the bookkeeping after the audit
};

// A document a finished job wrote: "audit.json", "dsfinvk.html", ...
struct JobOutcome {
    int exitStatus = 0;
    std::string error;                   // the refusal, as the command line words it
    std::vector<std::string> summaries;  // the text summary of each check, as the command line prints it
    std::vector<std::string> documents;  // file names in the job's folder
};

struct Job {
    std::string id;
    JobInput input;
    std::string folder;  // the job's own; uploads in folder/in
    std::atomic<JobState> state{JobState::Queued};
    JobProgress progress;
    std::atomic<bool> cancel{false};
    std::chrono::steady_clock::time_point created = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point finished;  // valid once the state is final
    JobOutcome outcome;                              // valid once the state is final

    bool over() const;
    std::string documentPath(const std::string& name) const;
};

// Runs one job to its end; sets the outcome, never throws.
using JobRunner = std::function<void(Job&)>;

class JobBoard {
public:
    JobBoard(std::string root, unsigned running, size_t waiting, std::chrono::milliseconds keep, JobRunner runner);
    ~JobBoard();
    JobBoard(const JobBoard&) = delete;
    JobBoard& operator=(const JobBoard&) = delete;

    // A place for one more job, or none when the queue is full. The job's
    // folder exists (mode 0700) before its upload starts.
    std::shared_ptr<Job> reserve();
    // The upload is complete: the job waits for a slot.
    void submit(const std::shared_ptr<Job>& job);
    // The upload failed: the place is given back and the folder deleted.
    void release(const std::shared_ptr<Job>& job);

    std::shared_ptr<Job> find(const std::string& id) const;
    bool cancel(const std::string& id);
    // Cancels every job, waits for the running ones, deletes every file.
    void shutdown();
    size_t count() const;

private:
    void work();
    void expire();
    void runOne(const std::shared_ptr<Job>& job);
    void remove(const std::shared_ptr<Job>& job);

    const std::string root_;
    const size_t capacity_;
    const std::chrono::milliseconds keep_;
    JobRunner runner_;
    mutable std::mutex lock_;
    std::condition_variable wake_;
    std::map<std::string, std::shared_ptr<Job>> jobs_;
    std::deque<std::shared_ptr<Job>> waiting_;
    size_t active_ = 0;  // reserved, waiting or running
    bool stopping_ = false;
    std::vector<std::thread> workers_;
    std::thread janitor_;
};

}  // namespace tsecheck::serve

#endif
