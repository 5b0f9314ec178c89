// BSD strlcpy/strlcat for C libraries without them, so that the library calls the functions bionic
// has under the same names on both platforms.

#include <string.h>

#if defined(__GLIBC__) && !__GLIBC_PREREQ(2, 38)

extern "C" {

size_t strlcpy(char* dst, const char* src, size_t size) {
    if (src == nullptr) src = "";
    size_t srcLength = strlen(src);
    if (dst != nullptr && size > 0) {
        size_t copied = srcLength < size - 1 ? srcLength : size - 1;
        memcpy(dst, src, copied);
        dst[copied] = '\0';
    }
    return srcLength;
}

size_t strlcat(char* dst, const char* src, size_t size) {
    if (src == nullptr) src = "";
    size_t srcLength = strlen(src);
    if (dst == nullptr) return srcLength;
    // A dst without a terminator inside `size` is left alone; the return still tells the caller
    // how long the result should have been, as BSD does.
    const char* dstEnd = static_cast<const char*>(memchr(dst, '\0', size));
    if (dstEnd == nullptr) return size + srcLength;
    size_t dstLength = static_cast<size_t>(dstEnd - dst);
    size_t room = size - dstLength - 1;
    size_t copied = srcLength < room ? srcLength : room;
    memcpy(dst + dstLength, src, copied);
    dst[dstLength + copied] = '\0';
    return dstLength + srcLength;
}

}  // extern "C"

#endif
