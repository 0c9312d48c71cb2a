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

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *block, size_t size);
void *__real_reallocarray(void *block, size_t count, size_t size);

void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t count, size_t size);
void *__wrap_realloc(void *block, size_t size);
void *__wrap_reallocarray(void *block, size_t count, size_t size);

void *__wrap_malloc(size_t size) {
    return mayAllocate() ? __real_malloc(size) : nullptr;
}

void *__wrap_calloc(size_t count, size_t size) {
    return mayAllocate() ? __real_calloc(count, size) : nullptr;
}

void *__wrap_realloc(void *block, size_t size) {
    return mayAllocate() ? __real_realloc(block, size) : nullptr;
}

void *__wrap_reallocarray(void *block, size_t count, size_t size) {
    void *grown = mayAllocate() ? __real_reallocarray(block, count, size) : nullptr;
    if (grown != nullptr && block == nullptr) std::memset(grown, 0xa5, count * size);
    return grown;
}
}
