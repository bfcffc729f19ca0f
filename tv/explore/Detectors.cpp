// SPDX-License-Identifier: Apache-2.0
#include "tv/explore/Detectors.h"

#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <functional>

#include "tv/explore/Symbols.h"

namespace korvane::tv {

Exploration::Detectors* gDetectors = nullptr;

namespace {

constexpr size_t kGranule = Heap::kGranule;

AccessCell* mapCells(size_t bytes) {
    void* const cells =
        mmap(nullptr, (bytes / kGranule + 1) * sizeof(AccessCell), PROT_READ | PROT_WRITE,
             MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return cells != MAP_FAILED ? static_cast<AccessCell*>(cells) : nullptr;
}

/// Code of the libraries that have registered; their constructors may run before those of this one.
std::vector<uintptr_t>& instrumentedCode() {
    static std::vector<uintptr_t> code;
    return code;
}

bool isInstrumented(const dl_phdr_info& library) {
    const auto& code = instrumentedCode();
    return std::any_of(code.begin(), code.end(), [&](uintptr_t address) {
        return std::any_of(library.dlpi_phdr, library.dlpi_phdr + library.dlpi_phnum,
                           [&](const ElfW(Phdr) & segment) {
                               return segment.p_type == PT_LOAD &&
                                      address - library.dlpi_addr - segment.p_vaddr <
                                          segment.p_memsz;
                           });
    });
}

/// Adds a library's variables, unless they are known.
int addVariables(dl_phdr_info* library, size_t, void* to) {
    auto& ranges = *static_cast<std::vector<CheckedRange>*>(to);
    if (!isInstrumented(*library)) {
        return 0;
    }
    for (int i = 0; i < library->dlpi_phnum; ++i) {
        const ElfW(Phdr)& segment = library->dlpi_phdr[i];
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the loader tells addresses as numbers.
        const auto* const begin = reinterpret_cast<const char*>(
            (library->dlpi_addr + segment.p_vaddr) / kGranule * kGranule);
        const bool known =
            std::any_of(ranges.begin(), ranges.end(),
                        [begin](const CheckedRange& range) { return range.begin == begin; });
        if (segment.p_type == PT_LOAD && (segment.p_flags & PF_W) != 0 && !known) {
            const size_t bytes = segment.p_memsz + kGranule;
            ranges.push_back({begin, bytes, mapCells(bytes)});
        }
    }
    return 0;
}

}  // namespace

void noteInstrumented(const void* code) {
    instrumentedCode().push_back(reinterpret_cast<uintptr_t>(code));
}

void ThreadState::clear() {
    clock.clear();
    now = 0;
    fenceReleased.clear();
    loaded.clear();
    stack = CallStacks::kEmpty;
    lastCode = nullptr;
    held.clear();
}

void SyncState::clear() {
    clock.clear();
    last = {};
}

Exploration::Detectors::Detectors() : threads(1) {
    ranges.push_back({heap.arena(), Heap::kArenaBytes, mapCells(Heap::kArenaBytes)});
    current = &threads.front();
}

Exploration::Detectors::~Detectors() {
    for (const CheckedRange& range : ranges) {
        munmap(range.cells, (range.bytes / kGranule + 1) * sizeof(AccessCell));
    }
}

void Exploration::Detectors::findVariables() {
    if (librariesFound != instrumentedCode().size()) {
        librariesFound = instrumentedCode().size();
        dl_iterate_phdr(addVariables, &ranges);
    }
}

// ---- accesses ----

/// Orders as the memory model says. Atomics run sequentially consistent, but this follows only the
/// order that the program asked for, so no race is hidden.
void Exploration::Detectors::atomic(Step step, const void* object, size_t bytes, int order,
                                    const void* code) {
    current->lastCode = code;
    const bool loads = step != Step::AtomicStore;
    const bool stores = step != Step::AtomicLoad;
    check(static_cast<const char*>(object), bytes, accessNow(code, stores, true));
    SyncState& sync = syncs.at(object);
    if (loads) {
        const bool acquires = order != __ATOMIC_RELAXED && order != __ATOMIC_RELEASE;
        (acquires ? current->clock : current->loaded).join(sync.clock);
    }
    if (stores) {
        const bool releases =
            order == __ATOMIC_RELEASE || order == __ATOMIC_ACQ_REL || order == __ATOMIC_SEQ_CST;
        if (step == Step::AtomicStore) {
            sync.clock.clear();  // no later load reads what was there before
        }
        sync.clock.join(releases ? current->clock : current->fenceReleased);
        if (releases) {
            tick();
        }
    }
}

void Exploration::Detectors::fence(int order) {
    if (order != __ATOMIC_RELEASE) {
        current->clock.join(current->loaded);
    }
    if (order != __ATOMIC_ACQUIRE && order != __ATOMIC_CONSUME) {
        current->fenceReleased = current->clock;
        tick();
    }
}

void Exploration::Detectors::checkMore(const CheckedRange& range, size_t at, size_t end,
                                       KeptAccess access) {
    while (at < end) {
        const size_t first = at % kGranule;
        const size_t count = std::min(kGranule - first, end - at);
        access.bytes = static_cast<uint8_t>(((1U << count) - 1) << first);
        check(range.cells[at / kGranule], access);
        at += count;
    }
}

void Exploration::Detectors::keep(AccessCell& cell, const KeptAccess& access) {
    if (cell.run != run) {
        cell.run = run;
        cell.count = 1;
        cell.latest = 0;
        cell.kept[0] = access;
        return;
    }
    const KeptAccess latest = cell.kept[cell.latest];
    if (latest.thread != access.thread && (latest.writes || access.writes) &&
        (latest.bytes & access.bytes) != 0) {
        cover(latest, access);
    }
    uint16_t left = 0;
    for (uint16_t i = 0; i < cell.count; ++i) {
        const KeptAccess& kept = cell.kept[i];
        const bool ordered =
            kept.thread == access.thread || kept.time <= current->clock.of(kept.thread);
        if (!ordered && kept.conflictsWith(access)) {
            reportRace(kept, access);
        }
        if (!ordered || !access.standsFor(kept)) {
            cell.kept[left++] = kept;
        }
    }
    if (left == AccessCell::kKept) {
        std::copy(cell.kept.begin() + 1, cell.kept.end(), cell.kept.begin());
        --left;
    }
    cell.kept[left] = access;
    cell.latest = left;
    cell.count = static_cast<uint16_t>(left + 1);
}

void Exploration::Detectors::cover(const KeptAccess& first, const KeptAccess& second) {
    constexpr uint8_t kBoth = 3;
    const auto one = reinterpret_cast<uintptr_t>(first.code);
    const auto other = reinterpret_cast<uintptr_t>(second.code);
    const uintptr_t key = std::min(one, other) * 0x9e3779b97f4a7c15 + std::max(one, other);
    PairOrders& orders = pairs.at(key);
    const uint8_t before = orders.seen;
    orders.seen |= one == other ? kBoth : one < other ? 1 : 2;
    coverage.pairs += before == 0 ? 1 : 0;
    coverage.inBothOrders += before != kBoth && orders.seen == kBoth ? 1 : 0;
}

// ---- memory ----

void* Exploration::Detectors::allocate(size_t bytes, size_t alignment, const void* code) {
    return heap.allocate(bytes, alignment, here(code));
}

bool Exploration::Detectors::free(void* block, const void* code) {
    if (!heap.contains(block)) {
        return false;
    }
    HeapBlock* const found = heap.find(block);
    if (found == nullptr || !found->living) {
        reportMemory(block, code);
        return true;
    }
    // A use that nothing orders before this races with it.
    access(Step::Write, block, found->bytes, code);
    heap.free(*found, here(code));
    return true;
}

void Exploration::Detectors::forgetLocks(const void* begin, size_t bytes) {
    const auto inside = [=](const void* lock) {
        return static_cast<size_t>(static_cast<const char*>(lock) -
                                   static_cast<const char*>(begin)) < bytes;
    };
    lockOrder.erase(std::remove_if(lockOrder.begin(), lockOrder.end(),
                                   [&](const LockEdge& edge) {
                                       return inside(edge.held) || inside(edge.taken);
                                   }),
                    lockOrder.end());
}

// ---- threads and locks ----

ThreadState& Exploration::Detectors::thread(int32_t number) {
    while (threads.size() <= static_cast<size_t>(number)) {
        threads.emplace_back();
    }
    return threads[static_cast<size_t>(number)];
}

void Exploration::Detectors::tick() {
    current->clock.set(static_cast<uint32_t>(currentNumber), ++current->now);
}

void Exploration::Detectors::release(const void* object) {
    syncs.at(object).clock.join(current->clock);
    tick();
}

void Exploration::Detectors::take(RunObserver::Sync what, const void* object, const void* code) {
    SyncState& sync = syncs.at(object);
    current->clock.join(sync.clock);
    if (what != RunObserver::Sync::Mutex && what != RunObserver::Sync::OtherLock) {
        return;
    }
    const KeptAccess taken{code != nullptr ? code : current->lastCode,
                           current->stack,
                           0,
                           static_cast<uint16_t>(currentNumber),
                           0xff,
                           true,
                           true};
    if (sync.last.code != nullptr && sync.last.thread != taken.thread) {
        cover(sync.last, taken);
    }
    sync.last = taken;
    current->held.push_back({object, taken.code});
}

void Exploration::Detectors::drop(const void* object) {
    auto& held = current->held;
    const auto found = std::find_if(held.rbegin(), held.rend(),
                                    [object](const HeldLock& lock) { return lock.lock == object; });
    if (found != held.rend()) {
        held.erase(std::next(found).base());
    }
}

/// A lock is about to be taken: each lock held comes before it. A path back from it to a held lock
/// is a cycle, unless a single thread took all of it.
void Exploration::Detectors::orderLock(const void* taken, const void* code) {
    for (const HeldLock& held : current->held) {
        const bool noted =
            std::any_of(lockOrder.begin(), lockOrder.end(), [&](const LockEdge& edge) {
                return edge.held == held.lock && edge.taken == taken &&
                       edge.takenAt.thread == currentNumber;
            });
        if (noted || held.lock == taken) {
            continue;
        }
        lockOrder.push_back(
            {held.lock, taken, {held.code, current->stack, currentNumber}, here(code)});
        reportCircle(lockOrder.back());
    }
}

void Exploration::Detectors::reportCircle(const LockEdge& closing) {
    std::vector<const LockEdge*> way;
    const std::function<bool(const void*)> reaches = [&](const void* from) {
        for (const LockEdge& edge : lockOrder) {
            const bool seen = std::find(way.begin(), way.end(), &edge) != way.end();
            if (edge.held != from || seen) {
                continue;
            }
            way.push_back(&edge);
            if (edge.taken == closing.held || reaches(edge.taken)) {
                return true;
            }
            way.pop_back();
        }
        return false;
    };
    if (!reaches(closing.taken) || std::all_of(way.begin(), way.end(), [&](const LockEdge* edge) {
            return edge->takenAt.thread == closing.takenAt.thread;
        })) {
        return;
    }
    FoundFault fault{ExploredFault::Kind::LockOrder, "locks taken in a circle", {}, 0};
    way.push_back(&closing);
    for (const LockEdge* edge : way) {
        fault.places.emplace_back("holds a lock taken at", CodePlace{edge->heldAt.code, 0, 0});
        fault.places.emplace_back("and takes another at", edge->takenAt);
    }
    report(std::move(fault));
}

// ---- reports ----

void Exploration::Detectors::reportRace(const KeptAccess& first, const KeptAccess& second) {
    const auto words = [](const KeptAccess& access) {
        return std::string(access.atomic ? "atomic " : "") + (access.writes ? "write" : "read");
    };
    const auto placeOf = [](const KeptAccess& access) {
        return CodePlace{access.code, access.stack, access.thread};
    };
    // The same text for both orders of the two accesses.
    const bool swap = std::pair(second.writes, first.code) > std::pair(first.writes, second.code);
    const KeptAccess& one = swap ? second : first;
    const KeptAccess& other = swap ? first : second;
    report({ExploredFault::Kind::Race,
            "data race",
            {{words(one), placeOf(one)}, {words(other), placeOf(other)}},
            0});
}

void Exploration::Detectors::reportMemory(const void* object, const void* code) {
    const HeapBlock* block = heap.near(object);
    FoundFault fault{ExploredFault::Kind::Outside, "access outside of a block", {}, 0};
    fault.places.emplace_back("access", here(code));
    if (block != nullptr) {
        const bool freed = !block->living && object < block->begin + block->bytes;
        if (freed) {
            fault.kind = ExploredFault::Kind::UseAfterFree;
            fault.title = "use after free";
            fault.places.emplace_back("freed", block->freed);
        }
        fault.places.emplace_back("allocated", block->allocated);
    }
    report(std::move(fault));
}

void Exploration::Detectors::report(FoundFault fault) {
    std::string key = nameOf(fault.kind);
    std::vector<uintptr_t> codes;
    for (const auto& [what, place] : fault.places) {
        codes.push_back(reinterpret_cast<uintptr_t>(place.code));
    }
    std::sort(codes.begin(), codes.end());  // two orders of a race are one fault
    for (const uintptr_t code : codes) {
        key += " " + std::to_string(code);
    }
    key += fault.places.empty() ? fault.title : "";
    const auto [entry, isNew] = known.emplace(key, faults.size());
    if (isNew) {
        for (auto& [what, place] : fault.places) {
            if (place.thread != 0) {
                what += " by thread " + std::to_string(place.thread) + " \"" +
                        VirtualTime::threadName(place.thread) + "\"";
            }
        }
        faults.emplace_back().kind = fault.kind;
        fault.index = entry->second;
        unresolved.push_back(std::move(fault));
    }
    ExploredFault& counted = faults[entry->second];
    counted.runs += counted.inThisRun ? 0 : 1;
    counted.inThisRun = true;
}

// ---- what a run leaves ----

/// Marks the live blocks that are reachable from the libraries' variables.
std::vector<bool> Exploration::Detectors::reachable() {
    const auto& blocks = heap.blocks();
    std::vector<bool> reached(blocks.size());
    std::vector<std::pair<const char*, size_t>> toScan;
    for (size_t i = 1; i < ranges.size(); ++i) {
        toScan.emplace_back(ranges[i].begin, ranges[i].bytes - kGranule);
    }
    while (!toScan.empty()) {
        const auto [begin, bytes] = toScan.back();
        toScan.pop_back();
        for (size_t at = 0; at + sizeof(void*) <= bytes; at += sizeof(void*)) {
            const void* const pointer = *reinterpret_cast<const void* const*>(begin + at);
            const HeapBlock* const block = heap.contains(pointer) ? heap.near(pointer) : nullptr;
            if (block != nullptr && block->living && !reached[heap.indexOf(*block)]) {
                reached[heap.indexOf(*block)] = true;
                toScan.emplace_back(block->begin, block->bytes);
            }
        }
    }
    return reached;
}

void Exploration::Detectors::findLeaks(bool report) {
    const auto& blocks = heap.blocks();
    if (std::none_of(blocks.begin(), blocks.end(),
                     [](const HeapBlock& block) { return block.living; })) {
        return;
    }
    const std::vector<bool> reached = reachable();
    for (size_t i = 0; i < blocks.size(); ++i) {
        if (!blocks[i].living || reached[i]) {
            continue;
        }
        if (report) {
            this->report({ExploredFault::Kind::MemoryLeak,
                          std::to_string(blocks[i].bytes) + " bytes are never freed",
                          {{"allocated", blocks[i].allocated}},
                          0});
        }
        heap.free(*heap.find(blocks[i].begin), {});
    }
}

void Exploration::Detectors::reportDescriptor(int descriptor) {
    char target[256] = "?";
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    const ssize_t length = readlink(link.c_str(), target, sizeof(target));
    std::string what(target, length > 0 ? static_cast<size_t>(length) : 1);
    what.erase(std::min(what.find(":["), what.size()));  // of a pipe or socket: not its number
    report({ExploredFault::Kind::DescriptorLeak, "a descriptor is never closed: " + what, {}, 0});
}

/// Names the places of the faults found in this run.
void Exploration::Detectors::resolve() {
    for (const FoundFault& found : unresolved) {
        ExploredFault& fault = faults[found.index];
        fault.what = found.title;
        for (const auto& [what, place] : found.places) {
            std::vector<const void*> codes = stacks.callers(place.stack);
            codes.insert(codes.begin(), place.code);
            const std::vector<SourcePlace> calls = placesOf(codes);
            // Names the place that uses std::atomic, and not the place inside it.
            const auto own = std::find_if(calls.begin(), calls.end(),
                                          [](const SourcePlace& call) { return !call.ofSystem; });
            fault.what += std::string(fault.details.empty() ? ": " : ", ") +
                          what.substr(0, what.find(" by thread")) + " " +
                          (own != calls.end() ? own : calls.begin())->text;
            fault.details += "  " + what + "\n";
            for (const SourcePlace& call : calls) {
                fault.details += "    " + call.text + "\n";
            }
        }
    }
    unresolved.clear();
}

}  // namespace korvane::tv
