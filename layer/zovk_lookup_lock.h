#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

namespace vulkan::zovk {

// The registry's reader-writer lock. Readers are the lookups of hooked calls when the
// configuration asks for locking, so they must be cheap: one atomic add to take and one to
// release, against some sixty instructions for a pthread rwlock. Writers (an instance or
// device made or destroyed) are rare; they wait for the readers to drain, and readers that
// meet a writer yield until it is done. Meets the standard SharedMutex requirements, so
// std::shared_lock and std::unique_lock work on it.
class ZoVkLookupLock {
public:
    void lock_shared() {
        if (__builtin_expect((state_.fetch_add(kReader, std::memory_order_acquire) & kWriter) != 0, 0)) {
            WaitForWriter();
        }
    }
    void unlock_shared() { state_.fetch_sub(kReader, std::memory_order_release); }

    void lock() {
        writers_.lock();
        state_.fetch_or(kWriter, std::memory_order_acquire);
        while ((state_.load(std::memory_order_acquire) & ~kWriter) != 0) {
            std::this_thread::yield();
        }
    }
    void unlock() {
        state_.fetch_and(~kWriter, std::memory_order_release);
        writers_.unlock();
    }

private:
    static constexpr uint32_t kWriter = 1u;
    static constexpr uint32_t kReader = 2u;

    // Steps back out and comes in again once no writer holds the lock.
    __attribute__((noinline)) void WaitForWriter() {
        do {
            state_.fetch_sub(kReader, std::memory_order_relaxed);
            while ((state_.load(std::memory_order_relaxed) & kWriter) != 0) {
                std::this_thread::yield();
            }
        } while ((state_.fetch_add(kReader, std::memory_order_acquire) & kWriter) != 0);
    }

    std::atomic<uint32_t> state_{0};
    std::mutex writers_;  // one writer at a time
};

}  // namespace vulkan::zovk
