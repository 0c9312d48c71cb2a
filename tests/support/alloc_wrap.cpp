#include "support/alloc_wrap.h"

#include <cerrno>
#include <cstddef>
#include <cstring>

unsigned long allocationCount = 0;
long allocationsUntilFailure = -1;

namespace {

bool mayAllocate() {
    ++allocationCount;
    if (allocationsUntilFailure < 0 || allocationsUntilFailure-- > 0) return true;
    errno = ENOMEM;
    return false;
}

}  // namespace

#define WRAP_ALLOCATION(name, parameters, ...)                                                     \
    extern "C" void *__real_##name parameters;                                                     \
    extern "C" void *__wrap_##name parameters;                                                     \
    extern "C" void *__wrap_##name parameters {                                                    \
        return mayAllocate() ? __real_##name(__VA_ARGS__) : nullptr;                               \
    }
WRAP_ALLOCATION(malloc, (size_t size), size)
WRAP_ALLOCATION(calloc, (size_t count, size_t size), count, size)
WRAP_ALLOCATION(realloc, (void *block, size_t size), block, size)

extern "C" {
void *__real_reallocarray(void *block, size_t count, size_t size);

void *__wrap_reallocarray(void *block, size_t count, size_t size);

void *__wrap_reallocarray(void *block, size_t count, size_t size) {
    void *grown = mayAllocate() ? __real_reallocarray(block, count, size) : nullptr;
    if (grown != nullptr && block == nullptr) std::memset(grown, 0xa5, count * size);
    return grown;
}
}
