// Bounded string copies. C libraries that have the same functions get the same results from them.

#undef _FORTIFY_SOURCE  // a C library's checked inline versions would stand in these functions' way
#include "iosched/util.h"

size_t strlcpy(char *__restrict dst, const char *__restrict src,
               size_t size) IOSCHED_LIBC_NOEXCEPT {
    const size_t srcLength = strlen(src);
    if (size == 0) return srcLength;
    const size_t copied = srcLength < size ? srcLength : size - 1;
    memcpy(dst, src, copied);
    dst[copied] = '\0';
    return srcLength;
}

size_t strlcat(char *__restrict dst, const char *__restrict src,
               size_t size) IOSCHED_LIBC_NOEXCEPT {
    const size_t srcLength = strlen(src);
    const size_t dstLength = strlen(dst);
    if (dstLength >= size) return dstLength + srcLength;
    const size_t room = size - 1 - dstLength;
    const size_t copied = srcLength < room ? srcLength : room;
    memcpy(dst + dstLength, src, copied);
    dst[dstLength + copied] = '\0';
    return dstLength + srcLength;
}
