// Pool memory against the allocators that a program would use instead.
//
// The raw primitive is malloc of the user area and the 60 bytes of header and trailer, which is
// what the pool asks of the heap. All allocators work in this process at once: mimalloc and
// jemalloc are opened privately and reached by their own names, so malloc stays the C library's.
#include <memory>
#include <random>

#include "library.h"
#include "team.h"

namespace {

using bench::Contender;
using bench::keep;

constexpr UINT32 kOverhead = 60;
constexpr std::size_t kLive = 200'000;
constexpr UINT32 kLiveSize = 64;

// How a contender allocates and frees; one for each thread.
struct Heap {
    std::string name;
    std::function<void*(UINT32)> allocate;
    std::function<void(void*)> release;
    std::function<Contender(UINT32 size)> pairs;  // alloc + free of a block, over and over
};

// The loops are templates so that the calls are not hidden behind std::function.
template <class Allocate, class Release>
Heap make_heap(std::string name, Allocate allocate, Release release) {
    auto pairs = [=](UINT32 size) {
        return Contender(name, [=](std::uint64_t n) {
            for (; n != 0; --n) {
                void* block = allocate(size);
                keep(block);
                release(block);
            }
        });
    };
    return {name, allocate, release, pairs};
}

void* (*mi_malloc)(std::size_t);
void (*mi_free)(void*);
void* (*mallocx)(std::size_t, int);
void (*dallocx)(void*, int);

std::vector<Heap> heaps_for(PIOsal osal) {
    std::vector<Heap> heaps;
    heaps.push_back(make_heap(
        "malloc(size+60)", [](UINT32 size) { return std::malloc(std::size_t{size} + kOverhead); },
        [](void* block) { std::free(block); }));
    heaps.push_back(make_heap(
        "pool, non-paged",
        [osal](UINT32 size) { return osal->lpVtbl->KxAllocNonPagedMemory(osal, size); },
        [osal](void* block) { osal->lpVtbl->KxFreeMemory(osal, block); }));
    heaps.push_back(make_heap(
        "pool, paged", [osal](UINT32 size) { return osal->lpVtbl->KxAllocPagedMemory(osal, size); },
        [osal](void* block) { osal->lpVtbl->KxFreeMemory(osal, block); }));
    if (mi_malloc != nullptr)
        heaps.push_back(make_heap(
            "mimalloc(size+60)", [](UINT32 size) { return mi_malloc(size + kOverhead); },
            [](void* block) { mi_free(block); }));
    if (mallocx != nullptr)
        heaps.push_back(make_heap(
            "jemalloc(size+60)", [](UINT32 size) { return mallocx(size + kOverhead, 0); },
            [](void* block) { dallocx(block, 0); }));
    return heaps;
}

// Blocks that stay allocated while others come and go; released in another order than they came.
class LiveBlocks {
  public:
    LiveBlocks(const std::vector<Heap>& heaps, std::size_t count) : heaps_(heaps) {
        for (const Heap& heap : heaps_) {
            auto& blocks = blocks_.emplace_back(count);
            for (void*& block : blocks)
                block = heap.allocate(kLiveSize);
            std::shuffle(blocks.begin(), blocks.end(), std::mt19937{1});
        }
    }
    ~LiveBlocks() {
        for (std::size_t i = 0; i < heaps_.size(); ++i)
            for (void* block : blocks_[i])
                heaps_[i].release(block);
    }
    LiveBlocks(const LiveBlocks&) = delete;
    LiveBlocks& operator=(const LiveBlocks&) = delete;

    std::vector<void*>& of(std::size_t heap) { return blocks_[heap]; }

  private:
    const std::vector<Heap>& heaps_;
    std::vector<std::vector<void*>> blocks_;
};

const std::vector<UINT32> kSizes = {16, 64, 256, 1024, 4096};

void one_thread(bench::Report& report, const std::string& group, const std::vector<Heap>& heaps) {
    for (UINT32 size : kSizes) {
        std::vector<Contender> contenders;
        for (const Heap& heap : heaps)
            contenders.push_back(heap.pairs(size));
        report.race(group, bench::size_name(size), size, contenders);
    }
}

// One operation frees one of the live blocks, in a random order, and allocates its successor.
void replaced(bench::Report& report, const std::vector<Heap>& heaps, LiveBlocks& live) {
    std::vector<Contender> contenders;
    for (std::size_t i = 0; i < heaps.size(); ++i) {
        auto next = std::make_shared<std::size_t>(0);
        contenders.emplace_back(heaps[i].name,
                                [&heap = heaps[i], &blocks = live.of(i), next](std::uint64_t n) {
                                    for (; n != 0; --n) {
                                        void*& block = blocks[*next];
                                        heap.release(block);
                                        block = heap.allocate(kLiveSize);
                                        *next = *next + 1 == blocks.size() ? 0 : *next + 1;
                                    }
                                });
    }
    report.race("One thread, one of 200,000 live blocks replaced", bench::size_name(kLiveSize),
                kLiveSize, contenders);
}

// Both threads allocate at the same time, each through its own instance.
void two_threads(bench::Report& report, const std::string& group, bench::Team& team,
                 const std::vector<Heap>& first, const std::vector<Heap>& second) {
    for (UINT32 size : kSizes) {
        std::vector<Contender> contenders;
        for (std::size_t i = 0; i < first.size(); ++i) {
            const Contender a = first[i].pairs(size), b = second[i].pairs(size);
            contenders.emplace_back(first[i].name, [&team, a, b](std::uint64_t n) {
                return team.run([&](unsigned who) { who == 0 ? a.loop(n) : b.loop(n); });
            });
        }
        report.race(group, bench::size_name(size), size, contenders);
    }
}

}  // namespace

int main(int argc, char** argv) {
    bench::Report report(argc, argv,
                         {"pool", "Pool memory", "allocation and release of one block",
                          "Another thread exists in the process throughout, as in every process "
                          "that started the library: the C library drops its atomic operations "
                          "where there is none.",
                          "bytes"});
    bench::Peer mimalloc("libmimalloc.so.2"), jemalloc("libjemalloc.so.2");
    if (!mimalloc.find("mi_malloc", mi_malloc) || !mimalloc.find("mi_free", mi_free))
        report.missing("mimalloc");
    if (!jemalloc.find("mallocx", mallocx) || !jemalloc.find("dallocx", dallocx))
        report.missing("jemalloc");

    bench::Library library;
    // An instance for each thread that ever uses it.
    bench::Instance mine, first, second;
    const auto heaps = heaps_for(mine), firsts = heaps_for(first), seconds = heaps_for(second);
    bench::Team team(2);
    one_thread(report, "One thread", heaps);
    two_threads(report, "Two threads, an instance each", team, firsts, seconds);
    LiveBlocks live(heaps, kLive);
    one_thread(report, "One thread, 200,000 blocks live", heaps);
    replaced(report, heaps, live);
    two_threads(report, "Two threads, an instance each, 200,000 blocks live", team, firsts,
                seconds);
    return report.finish();
}
