// Not API: machinery of the agent library (the node storage of the aggregator's owner map),
// written here because a plug-in brings no third-party library into its host's process.
//
// Node storage for ordered containers whose lookups walk one node per tree level.
//
// A NodePool hands out slots of one cache line, each aligned to a line, carved from larger blocks;
// freed slots are reused and blocks go back to the system only with the pool. A tree node that
// fits a slot therefore costs exactly one line per level walked, where the general allocator's
// 16-byte alignment often splits it over two. NodeAllocator puts a container's single-node
// allocations into a shared pool and everything else into the general allocator.
//
// Invariants:
// - Every slot is either handed out or in free_ (poisoned for AddressSanitizer while free).
// - A pool is used from one thread at a time (as the container that owns it).
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define VELTA_AGENT_NODE_POOL_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VELTA_AGENT_NODE_POOL_ASAN 1
#endif
#endif
#ifdef VELTA_AGENT_NODE_POOL_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace Velta::Agent::internal {

class NodePool {
public:
    // The size and alignment of a slot: one cache line.
    static constexpr std::size_t kSlot = 64;

    NodePool() = default;
    NodePool(const NodePool&) = delete;
    NodePool& operator=(const NodePool&) = delete;
    ~NodePool() {
        for (const auto& [block, slots] : blocks_) {
#ifdef VELTA_AGENT_NODE_POOL_ASAN
            ASAN_UNPOISON_MEMORY_REGION(block, slots * kSlot);
#else
            (void)slots;
#endif
            ::operator delete (block, std::align_val_t{kSlot});
        }
    }

    // A free slot of kSlot bytes, aligned to kSlot.
    void* take() {
        if (free_.empty()) grow();
        void* slot = free_.back();
        free_.pop_back();
#ifdef VELTA_AGENT_NODE_POOL_ASAN
        ASAN_UNPOISON_MEMORY_REGION(slot, kSlot);
#endif
        return slot;
    }
    // Returns a slot obtained from take() of this pool.
    void give(void* slot) noexcept {
#ifdef VELTA_AGENT_NODE_POOL_ASAN
        ASAN_POISON_MEMORY_REGION(slot, kSlot);
#endif
        free_.push_back(slot);  // never allocates: capacity covers every slot (see grow)
    }

private:
    // Blocks double from 16 slots up to 1024 (64 KiB), so small containers stay small.
    void grow() {
        const std::size_t slots = nextSlots_;
        auto* block = static_cast<unsigned char*>(::operator new (slots* kSlot, std::align_val_t{kSlot}));
        blocks_.emplace_back(block, slots);
        total_ += slots;
        free_.reserve(total_);
        for (std::size_t i = slots; i-- > 0;) free_.push_back(block + i * kSlot);
#ifdef VELTA_AGENT_NODE_POOL_ASAN
        ASAN_POISON_MEMORY_REGION(block, slots * kSlot);
#endif
        nextSlots_ = std::min<std::size_t>(nextSlots_ * 2, 1024);
    }

    std::vector<void*> free_;
    std::vector<std::pair<void*, std::size_t>> blocks_;  // block, its slot count
    std::size_t total_ = 0;
    std::size_t nextSlots_ = 16;
};

// Allocator of a node-based container: single objects that fit a slot come from the shared pool.
template <class T>
class NodeAllocator {
public:
    using value_type = T;

    explicit NodeAllocator(std::shared_ptr<NodePool> pool) noexcept : pool_(std::move(pool)) {}
    template <class U>
    NodeAllocator(const NodeAllocator<U>& other) noexcept : pool_(other.pool()) {}

    T* allocate(std::size_t n) {
        if (pooled(n)) return static_cast<T*>(pool_->take());
        return std::allocator<T>().allocate(n);
    }
    void deallocate(T* p, std::size_t n) noexcept {
        if (pooled(n))
            pool_->give(p);
        else
            std::allocator<T>().deallocate(p, n);
    }

    const std::shared_ptr<NodePool>& pool() const noexcept { return pool_; }

    template <class U>
    friend bool operator==(const NodeAllocator& a, const NodeAllocator<U>& b) noexcept {
        return a.pool_ == b.pool();
    }

private:
    static constexpr bool fits = sizeof(T) <= NodePool::kSlot && alignof(T) <= NodePool::kSlot;
    static constexpr bool pooled(std::size_t n) noexcept { return fits && n == 1; }

    std::shared_ptr<NodePool> pool_;
};

}  // namespace Velta::Agent::internal
