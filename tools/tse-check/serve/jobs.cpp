#include "serve/jobs.h"

#include <sys/stat.h>

#include <filesystem>

#include "serve/access.h"

namespace tsecheck::serve {

namespace fs = std::filesystem;

const char* jobKindName(JobKind kind)
{
    switch (kind) {
    case JobKind::Audit: return "audit";
    case JobKind::Dsfinvk: return "dsfinvk";
    case JobKind::Receipt: return "receipt";
    }
    return "audit";
}

const char* jobStateName(JobState state)
{
    switch (state) {
    case JobState::Queued: return "queued";
    case JobState::Running: return "running";
    case JobState::Done: return "done";
    case JobState::Failed: return "failed";
    case JobState::Cancelled: return "cancelled";
    }
    return "failed";
}

bool Job::over() const
{
    const JobState now = state.load();
    return now == JobState::Done || now == JobState::Failed || now == JobState::Cancelled;
}

std::string Job::documentPath(const std::string& name) const
{
    return (fs::path(folder) / name).string();
}

JobBoard::JobBoard(std::string root, unsigned running, size_t waiting, std::chrono::milliseconds keep, JobRunner runner)
    : root_(std::move(root)), capacity_(running + waiting), keep_(keep), runner_(std::move(runner))
{
    for (unsigned i = 0; i < running; ++i) workers_.emplace_back([this] { work(); });
    janitor_ = std::thread([this] { expire(); });
}

JobBoard::~JobBoard()
{
    shutdown();
}

std::shared_ptr<Job> JobBoard::reserve()
{
    auto job = std::make_shared<Job>();
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (stopping_ || active_ >= capacity_) return nullptr;
        ++active_;
        do {
            job->id = randomToken();
        } while (jobs_.count(job->id));
        jobs_.emplace(job->id, job);
    }
    job->folder = (fs::path(root_) / job->id).string();
    ::mkdir(job->folder.c_str(), 0700);
    ::mkdir((job->folder + "/in").c_str(), 0700);
    return job;
}

void JobBoard::submit(const std::shared_ptr<Job>& job)
{
    std::lock_guard<std::mutex> guard(lock_);
    waiting_.push_back(job);
    wake_.notify_all();
}

void JobBoard::release(const std::shared_ptr<Job>& job)
{
    {
        std::lock_guard<std::mutex> guard(lock_);
        --active_;
        jobs_.erase(job->id);
    }
    std::error_code error;
    fs::remove_all(job->folder, error);
}

std::shared_ptr<Job> JobBoard::find(const std::string& id) const
{
    std::lock_guard<std::mutex> guard(lock_);
    const auto found = jobs_.find(id);
    return found == jobs_.end() ? nullptr : found->second;
}

bool JobBoard::cancel(const std::string& id)
{
    const std::shared_ptr<Job> job = find(id);
    if (!job) return false;
    job->cancel = true;
    return true;
}

size_t JobBoard::count() const
{
    std::lock_guard<std::mutex> guard(lock_);
    return jobs_.size();
}

void JobBoard::work()
{
    while (true) {
        std::shared_ptr<Job> job;
        {
            std::unique_lock<std::mutex> guard(lock_);
            wake_.wait(guard, [&] { return stopping_ || !waiting_.empty(); });
            if (waiting_.empty()) return;
            job = waiting_.front();
            waiting_.pop_front();
        }
        runOne(job);
        std::lock_guard<std::mutex> guard(lock_);
        --active_;
    }
}

void JobBoard::runOne(const std::shared_ptr<Job>& job)
{
    if (job->cancel) {
        job->finished = std::chrono::steady_clock::now();
        job->state = JobState::Cancelled;
        return;
    }
    job->state = JobState::Running;
    runner_(*job);
}

void JobBoard::remove(const std::shared_ptr<Job>& job)
{
    std::error_code error;
    fs::remove_all(job->folder, error);
}

// Finished jobs older than the keep time go, with their files.
void JobBoard::expire()
{
    std::unique_lock<std::mutex> guard(lock_);
    while (!stopping_) {
        wake_.wait_for(guard, std::chrono::milliseconds(200));
        const auto now = std::chrono::steady_clock::now();
        std::vector<std::shared_ptr<Job>> old;
        for (auto it = jobs_.begin(); it != jobs_.end();) {
            if (it->second->over() && now - it->second->finished > keep_) {
                old.push_back(it->second);
                it = jobs_.erase(it);
            } else {
                ++it;
            }
        }
        guard.unlock();
        for (const auto& job : old) remove(job);
        guard.lock();
    }
}

void JobBoard::shutdown()
{
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (stopping_ && workers_.empty()) return;
        stopping_ = true;
        for (auto& entry : jobs_) entry.second->cancel = true;
        waiting_.clear();
        wake_.notify_all();
    }
    for (std::thread& worker : workers_) worker.join();
    workers_.clear();
    if (janitor_.joinable()) janitor_.join();
    std::lock_guard<std::mutex> guard(lock_);
    for (auto& entry : jobs_) remove(entry.second);
    jobs_.clear();
}

}  // namespace tsecheck::serve
