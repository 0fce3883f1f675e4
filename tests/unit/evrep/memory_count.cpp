#include "memory_count.h"

#include <cstdlib>
#include <new>

namespace {
std::size_t total = 0; // the tests have one thread
}

void* operator new(std::size_t size) {
    total += size;
    if (void* memory = std::malloc(size))
        return memory;
    throw std::bad_alloc();
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    total += size;
    return std::malloc(size);
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

MemoryCount::MemoryCount() noexcept : start_(total) {}

std::size_t MemoryCount::allocated() const noexcept {
    return total - start_;
}
