// Lets what these tests allocate pass through `malloc`, which is one of the calls that can be made to fail.

#include <cstdlib>
#include <new>

void* operator new(std::size_t size) {
    if (void* memory = std::malloc(size)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
