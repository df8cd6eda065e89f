// Test helpers for the 32-bit build: objects placed at chosen addresses in
// pages mapped there, instead of hoping that an allocation lands high.
#pragma once
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

static_assert(sizeof(void*) == 4, "helpers for the 32-bit build only");

// An address as a 64-bit field: sign-extended from 32 bits.
constexpr unsigned long long sign_extended(std::uint32_t address) {
    return address >= 0x80000000u ? 0xFFFFFFFF00000000ull | address : address;
}
static_assert(sign_extended(4154462224u) == 18446744073569046544ull, "the example of the trace format");
static_assert(sign_extended(134529440u) == 134529440ull, "addresses below 2^31 stay as they are");

// Maps `pages` fresh read-write pages at page address `preferred`, or else at
// the first free page address from `lowest` up in steps of 1 MiB (below
// 2^32); nullptr if none is free. MAP_FIXED_NOREPLACE never replaces a
// mapping; a kernel that takes it for a hint and maps elsewhere is undone.
inline void* map_pages_near(std::uintptr_t preferred, std::uintptr_t lowest, unsigned pages = 1) {
    std::size_t size = std::size_t(sysconf(_SC_PAGESIZE)) * pages;
    for (std::uint64_t at = preferred, next = lowest; at + size <= 0x100000000ull; at = next, next += 1u << 20) {
        void* p = mmap(reinterpret_cast<void*>(at), size, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
        if (p == reinterpret_cast<void*>(at)) return p;
        if (p != MAP_FAILED) munmap(p, size);
    }
    return nullptr;
}

inline std::uint32_t address_of(const void* p) { return std::uint32_t(reinterpret_cast<std::uintptr_t>(p)); }
