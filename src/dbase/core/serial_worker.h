// Jobs run one after another, in the order they were posted, on a thread of
// their own while the poster goes on with its work; wait() is where the
// poster takes up again what the jobs touch. Whatever a posted job touches
// is the job's until then.
//
// The thread lives from the first job posted to the wait that finds them all
// done, so a worker with nothing to do holds no thread (and a process that
// forks between runs leaves none behind in the child); waitUntilIdle() keeps
// it for the jobs to come, when more are sure to follow soon (a child forked
// meanwhile must not use the worker). When no thread can be had, post() runs
// the job itself.
#pragma once

#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>

namespace dbase {

class SerialWorker {
 public:
  SerialWorker() = default;
  // Jobs not yet started are dropped; the one under way ends first.
  ~SerialWorker();
  SerialWorker(const SerialWorker&) = delete;
  SerialWorker& operator=(const SerialWorker&) = delete;

  // A job posted after one that threw is dropped, unless it is posted
  // `evenAfterAFailure` (what lets go of something the others held).
  void post(std::function<void()> job, bool evenAfterAFailure = false);
  // Until every job posted has run. Rethrows what a job threw; the jobs
  // posted after it were dropped, but for those posted to run even so.
  void wait();
  // The same, the thread kept waiting for more jobs (no thread to start for
  // them, none to join now): until the next wait(), finish() or discard().
  void waitUntilIdle();
  // As wait(), keeping what a job threw for the next wait().
  void finish() noexcept;
  // Drops the jobs not yet started, waits for the one under way, and
  // forgets what a job threw.
  void discard() noexcept;

 private:
  void run();

  std::mutex mutex_;
  std::condition_variable posted_;
  std::condition_variable idle_;  // no job left and none under way
  struct Job {
    std::function<void()> run;
    bool evenAfterAFailure = false;
  };
  std::deque<Job> jobs_;
  std::exception_ptr failure_;
  bool running_ = false;  // a job is under way
  bool closing_ = false;  // the thread ends once no job is left
  std::thread thread_;
};

}  // namespace dbase
