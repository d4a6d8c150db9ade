#include "dbase/core/serial_worker.h"

#include <system_error>
#include <utility>

namespace dbase {

SerialWorker::~SerialWorker() { discard(); }

void SerialWorker::post(std::function<void()> job, bool evenAfterAFailure) {
  {
    std::lock_guard<std::mutex> guard(mutex_);
    jobs_.push_back({std::move(job), evenAfterAFailure});
  }
  if (thread_.joinable()) {
    posted_.notify_one();
    return;
  }
  try {
    thread_ = std::thread([this] { run(); });
  } catch (const std::system_error&) {
    // No thread to be had: the job runs here, as the poster would have.
    Job now;
    {
      std::lock_guard<std::mutex> guard(mutex_);
      now = std::move(jobs_.back());
      jobs_.pop_back();
      if (failure_ && !now.evenAfterAFailure) return;  // dropped, as after the failure it follows
    }
    now.run();
  }
}

void SerialWorker::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if (jobs_.empty()) idle_.notify_all();  // dropped jobs too leave it idle
    posted_.wait(lock, [&] { return !jobs_.empty() || closing_; });
    if (jobs_.empty()) return;
    Job job = std::move(jobs_.front());
    jobs_.pop_front();
    if (failure_ && !job.evenAfterAFailure) continue;  // what follows a failed job is dropped
    running_ = true;
    lock.unlock();
    std::exception_ptr thrown;
    try {
      job.run();
    } catch (...) {
      thrown = std::current_exception();
    }
    job.run = nullptr;  // what it held goes before the poster hears it is done
    lock.lock();
    running_ = false;
    if (thrown && !failure_) failure_ = thrown;
  }
}

void SerialWorker::finish() noexcept {
  if (!thread_.joinable()) return;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    closing_ = true;
  }
  posted_.notify_one();
  thread_.join();
  closing_ = false;
}

void SerialWorker::waitUntilIdle() {
  std::unique_lock<std::mutex> lock(mutex_);
  idle_.wait(lock, [&] { return jobs_.empty() && !running_; });
  if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
}

void SerialWorker::wait() {
  finish();
  if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
}

void SerialWorker::discard() noexcept {
  {
    std::lock_guard<std::mutex> guard(mutex_);
    jobs_.clear();
  }
  finish();
  failure_ = nullptr;
}

}  // namespace dbase
