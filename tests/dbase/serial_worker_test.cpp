// Jobs posted to a SerialWorker run in order on a thread of their own, a
// failure stops the jobs after it (but for those posted to run even so) and
// reaches the poster at its next wait, and a worker with nothing to do holds
// no thread.
#include "dbase/core/serial_worker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <vector>

using dbase::SerialWorker;

namespace {

size_t threadsOfThisProcess() {
  size_t n = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) ++n;
  return n;
}

}  // namespace

TEST(SerialWorker, RunsJobsOneAfterAnotherInTheOrderPostedOffThePostersThread) {
  SerialWorker worker;
  std::vector<int> done;  // touched by the jobs only until wait()
  std::atomic<int> running{0};
  bool overlapped = false, onPoster = false;
  const auto poster = std::this_thread::get_id();
  for (int i = 0; i < 200; ++i)
    worker.post([&, i] {
      if (running.fetch_add(1) != 0) overlapped = true;
      if (std::this_thread::get_id() == poster) onPoster = true;
      done.push_back(i);
      running.fetch_sub(1);
    });
  worker.wait();
  ASSERT_EQ(done.size(), 200u);
  for (int i = 0; i < 200; ++i) EXPECT_EQ(done[size_t(i)], i);
  EXPECT_FALSE(overlapped);
  EXPECT_FALSE(onPoster);
}

TEST(SerialWorker, AFailedJobReachesTheNextWaitAndTheJobsAfterItAreDropped) {
  SerialWorker worker;
  std::vector<int> done;
  worker.post([&] { done.push_back(1); });
  worker.post([] { throw std::runtime_error("índice roto"); });
  worker.post([&] { done.push_back(3); });
  try {
    worker.wait();
    FAIL() << "the job's failure was not rethrown";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "índice roto");
  }
  EXPECT_EQ(done, std::vector<int>{1});
  // Said once: the worker serves again afterwards.
  worker.post([&] { done.push_back(4); });
  EXPECT_NO_THROW(worker.wait());
  EXPECT_EQ(done, (std::vector<int>{1, 4}));
}

// What lets go of something the failed job held still runs; the poster
// hears of the first failure only.
TEST(SerialWorker, AJobPostedToRunEvenAfterAFailureRunsWhenTheOthersAreDropped) {
  SerialWorker worker;
  std::vector<int> done;
  worker.post([] { throw std::runtime_error("índice roto"); });
  worker.post([&] { done.push_back(2); });
  worker.post([&] { done.push_back(3); }, true);
  worker.post([] { throw std::runtime_error("otra"); }, true);
  worker.post([&] { done.push_back(5); });
  try {
    worker.wait();
    FAIL() << "the job's failure was not rethrown";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "índice roto");
  }
  EXPECT_EQ(done, std::vector<int>{3});
}

TEST(SerialWorker, FinishingKeepsAFailureForTheNextWait) {
  SerialWorker worker;
  worker.post([] { throw std::runtime_error("sin sitio"); });
  worker.finish();
  EXPECT_THROW(worker.wait(), std::runtime_error);
  EXPECT_NO_THROW(worker.wait());
}

TEST(SerialWorker, DiscardingDropsWhatWaitsAndForgetsAFailure) {
  SerialWorker worker;
  std::atomic<bool> started{false}, release{false};
  std::atomic<int> ran{0};
  worker.post([&] {
    started = true;
    while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ++ran;
    throw std::runtime_error("falla");
  });
  for (int i = 0; i < 10; ++i) worker.post([&] { ++ran; });
  while (!started) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  std::thread releaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    release = true;
  });
  worker.discard();  // waits for the job under way, not for the ten behind it
  releaser.join();
  EXPECT_EQ(ran.load(), 1);
  EXPECT_NO_THROW(worker.wait());
}

// Runs that follow one another keep the thread: none is started or joined
// between them; a failure reaches the waiter all the same, and the next
// wait() ends the thread.
TEST(SerialWorker, WaitingUntilIdleKeepsTheThreadForTheJobsThatFollow) {
  const size_t before = threadsOfThisProcess();
  SerialWorker worker;
  std::vector<int> done;
  std::thread::id first;
  worker.post([&] { first = std::this_thread::get_id(); });
  worker.waitUntilIdle();
  EXPECT_EQ(threadsOfThisProcess(), before + 1);
  bool sameThread = true;
  for (int i = 0; i < 50; ++i) {
    worker.post([&, i] {
      sameThread = sameThread && std::this_thread::get_id() == first;
      done.push_back(i);
    });
    worker.waitUntilIdle();
    ASSERT_EQ(done.size(), size_t(i) + 1);
  }
  EXPECT_TRUE(sameThread);
  worker.post([] { throw std::runtime_error("sin sitio"); });
  worker.post([&] { done.push_back(-1); });  // dropped after the failure
  EXPECT_THROW(worker.waitUntilIdle(), std::runtime_error);
  EXPECT_EQ(done.size(), 50u);
  worker.wait();
  EXPECT_EQ(threadsOfThisProcess(), before);
}

TEST(SerialWorker, HoldsAThreadOnlyWhileItHasJobs) {
  const size_t before = threadsOfThisProcess();
  {
    SerialWorker worker;
    std::atomic<bool> release{false};
    worker.post([&] {
      while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    });
    EXPECT_EQ(threadsOfThisProcess(), before + 1);
    release = true;
    worker.wait();
    EXPECT_EQ(threadsOfThisProcess(), before);
    worker.post([] {});
    worker.wait();
    EXPECT_EQ(threadsOfThisProcess(), before);
  }
  // A worker dropped with jobs still to run ends them and its thread.
  std::atomic<int> ran{0};
  {
    SerialWorker worker;
    for (int i = 0; i < 1000; ++i) worker.post([&] { ++ran; });
  }
  EXPECT_LE(ran.load(), 1000);
  EXPECT_EQ(threadsOfThisProcess(), before);
}
