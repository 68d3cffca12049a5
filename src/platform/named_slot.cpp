#include "platform/platform.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <cerrno>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>
#endif

namespace krf::platform {

namespace {
constexpr std::uint64_t kReservedBytes = 268435456;   // 256 MiB
// 682 MiB per concurrent run. One "advancedsmoothing2" run on a 3000 x 2500
// image peaks at 270 to 280 MiB resident (a whole process, with the host's two
// 15 MB rasters; measured by the benchmark with the process's peak resident
// size), since its detail bands are kept only where the synthesis reads them:
// a slot leaves room for images up to about twice that area.
constexpr std::uint64_t kBytesPerSlot = 715128832;

long slots_for_available_memory() noexcept;
}  // namespace

// Below 1 slot asked: the count the free memory allows.
NamedSlot::NamedSlot(const char* name) noexcept : NamedSlot(name, 0) {}

long slot_count_for(std::uint64_t available_bytes) noexcept {
    // Signed 64-bit arithmetic: less memory than the reservation gives a
    // negative count, which still becomes one slot.
    const auto slots = (static_cast<std::int64_t>(available_bytes) - static_cast<std::int64_t>(kReservedBytes)) /
                       static_cast<std::int64_t>(kBytesPerSlot);
    if (slots < 1) return 1;
    return slots > 0x7fffffff ? 0x7fffffffL : static_cast<long>(slots);
}

#if defined(_WIN32)
namespace {
long slots_for_available_memory() noexcept {
    MEMORYSTATUSEX status{};
    status.dwLength = 64;
    GlobalMemoryStatusEx(&status);
    return slot_count_for(status.ullAvailVirtual);
}
}  // namespace

void NamedSlot::remove(const char*) noexcept {}

NamedSlot::NamedSlot(const char* name, long slotsIfCreated) noexcept {
    // An existing semaphore keeps its own counts whatever is asked here.
    const long slots = slotsIfCreated >= 1 ? slotsIfCreated : slots_for_available_memory();
    wchar_t wide[64] = {};
    for (int i = 0; i < 63 && name[i] != '\0'; ++i) wide[i] = static_cast<wchar_t>(name[i]);
    HANDLE semaphore = CreateSemaphoreW(nullptr, slots, slots, wide);
    handle_ = reinterpret_cast<std::intptr_t>(semaphore);
    held_ = semaphore != nullptr && WaitForSingleObject(semaphore, INFINITE) == WAIT_OBJECT_0;
}

NamedSlot::~NamedSlot() {
    HANDLE semaphore = reinterpret_cast<HANDLE>(handle_);
    if (semaphore == nullptr) return;
    if (held_) ReleaseSemaphore(semaphore, 1, nullptr);
    CloseHandle(semaphore);
}
#else
namespace {
// System V semaphores identify themselves by a number, not a name: derive a
// stable key from the name (FNV-1a), the same in every process.
key_t key_for(const char* name) noexcept {
    std::uint32_t hash = 2166136261u;
    for (const char* p = name; *p != '\0'; ++p) hash = (hash ^ static_cast<unsigned char>(*p)) * 16777619u;
    return static_cast<key_t>(hash & 0x7fffffff);
}

long slots_for_available_memory() noexcept {
    const long pages = sysconf(_SC_AVPHYS_PAGES);
    const long page_size = sysconf(_SC_PAGESIZE);
    const std::uint64_t available =
        pages > 0 && page_size > 0 ? static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(page_size) : 0;
    return slot_count_for(available);
}

// slots < 1: the count the free memory allows, read only when creating.
int open_or_create(const char* name, long slots) noexcept {
    const key_t key = key_for(name);
    int id = semget(key, 1, IPC_CREAT | IPC_EXCL | 0666);
    if (id >= 0) {
        // A process that opens the set before this value is written blocks in
        // its wait until the value arrives, so the creation needs no lock.
        semctl(id, 0, SETVAL, static_cast<int>(slots >= 1 ? slots : slots_for_available_memory()));
        return id;
    }
    if (errno == EEXIST) id = semget(key, 1, 0666);
    return id;
}

bool step(int id, short delta) noexcept {
    // SEM_UNDO gives the slot back when a holder dies without releasing it.
    sembuf op{0, delta, SEM_UNDO};
    while (semop(id, &op, 1) != 0) {
        if (errno != EINTR) return false;
    }
    return true;
}
}  // namespace

NamedSlot::NamedSlot(const char* name, long slotsIfCreated) noexcept {
    const int id = open_or_create(name, slotsIfCreated);
    handle_ = id;
    held_ = id >= 0 && step(id, -1);
}

void NamedSlot::remove(const char* name) noexcept {
    const int id = semget(key_for(name), 1, 0666);
    if (id >= 0) semctl(id, 0, IPC_RMID);
}

NamedSlot::~NamedSlot() {
    if (held_) step(static_cast<int>(handle_), +1);
}
#endif

}  // namespace krf::platform
