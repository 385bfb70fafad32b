// Internal to the library: one utterance's independent items (frames) shared
// among threads. Chunks of items are handed out as threads become free, so a
// slow stretch (voiced, low-pitched) does not hold up the others; every item is
// processed exactly once by one thread, so results do not depend on the split.
#ifndef KESTREL_PARALLEL_H
#define KESTREL_PARALLEL_H

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

namespace kestrel {

// Most threads a routine uses, whatever it is asked for.
constexpr uint32_t kMaxThreads = 256;

// Threads to use for n items of which chunk go together: at least 1, at most
// kMaxThreads and no more than there are chunks.
inline uint32_t threadsfor(uint64_t n, uint64_t chunk, uint32_t threads) {
  const uint64_t chunks = (n + chunk - 1) / chunk;
  uint64_t t = threads == 0 ? 1 : threads;
  if (t > kMaxThreads) t = kMaxThreads;
  if (t > chunks) t = chunks;
  return t == 0 ? 1 : static_cast<uint32_t>(t);
}

// body(t, begin, end) for consecutive chunks [begin, end) of [0, n), on
// `threads` threads numbered 0 (the calling thread) to threads - 1; thread t
// uses the caller's per-thread state t. A thread that cannot be started leaves
// its chunks to the others. Bodies must not throw.
template <class Body>
void parallelchunks(uint64_t n, uint64_t chunk, uint32_t threads, Body body) {
  std::atomic<uint64_t> next{0};
  auto run = [&](uint32_t t) {
    for (;;) {
      const uint64_t begin = next.fetch_add(chunk, std::memory_order_relaxed);
      if (begin >= n) return;
      body(t, begin, n - begin < chunk ? n : begin + chunk);
    }
  };
  std::vector<std::thread> crew;
  try {
    crew.reserve(threads > 0 ? threads - 1 : 0);
    for (uint32_t t = 1; t < threads; ++t) crew.emplace_back(run, t);
  } catch (...) {
  }
  run(0);
  for (std::thread &th : crew) th.join();
}

}  // namespace kestrel

#endif
