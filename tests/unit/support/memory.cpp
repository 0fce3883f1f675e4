#include "memory.h"

#include <cstdlib>
#include <new>

std::size_t allocated = 0; // the tests have one thread
int allocationsLeft = -1;

// clang-format off
[[gnu::noinline]] void* operator new(std::size_t size) {
    allocated += size;
    void* memory = allocationsLeft-- == 0 ? nullptr : std::malloc(size | 1U);
    return memory != nullptr ? memory : throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocated += size, std::malloc(size); }
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new[](std::size_t size, const std::nothrow_t& none) noexcept { return operator new(size, none); }
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete[](void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
// clang-format on
