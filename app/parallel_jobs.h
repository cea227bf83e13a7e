// Work over many files on every core, with the results handed back one at a
// time on the calling thread (the one that owns the catalogue) as each file
// finishes, so an interrupted run keeps everything finished so far.
#pragma once

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace orvel::app {

// Runs work(i) for i < count on up to `jobs` threads (0: one per core) and
// calls done(i, result) on this thread in the order the results arrive. Once
// `stop` is set no new item starts; items already started finish and are
// handed over. Returns how many items were handed over.
template <typename Result>
size_t forEachParallel(size_t count, unsigned jobs, const std::atomic<bool>& stop,
                       const std::function<Result(size_t)>& work,
                       const std::function<void(size_t, Result&)>& done) {
  if (jobs == 0) jobs = std::max(1u, std::thread::hardware_concurrency());
  jobs = unsigned(std::min<size_t>(jobs, std::max<size_t>(count, 1)));
  std::atomic<size_t> next{0};
  std::mutex mutex;
  std::condition_variable ready;
  std::deque<std::pair<size_t, Result>> finished;
  size_t running = jobs;
  std::vector<std::jthread> workers;
  for (unsigned j = 0; j < jobs; ++j)
    workers.emplace_back([&] {
      for (;;) {
        if (stop.load()) break;
        const size_t i = next.fetch_add(1);
        if (i >= count) break;
        Result r = work(i);
        std::lock_guard lock(mutex);
        finished.emplace_back(i, std::move(r));
        ready.notify_one();
      }
      std::lock_guard lock(mutex);
      --running;
      ready.notify_one();
    });
  size_t handed = 0;
  for (;;) {
    std::unique_lock lock(mutex);
    ready.wait(lock, [&] { return !finished.empty() || running == 0; });
    if (finished.empty()) break;
    auto item = std::move(finished.front());
    finished.pop_front();
    lock.unlock();
    done(item.first, item.second);
    ++handed;
  }
  return handed;
}

}  // namespace orvel::app
