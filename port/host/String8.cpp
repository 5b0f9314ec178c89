// The out-of-line part of the host String8. Allocation failures come back as NO_MEMORY rather
// than as exceptions, since callers are written against libutils, which never throws.

#include <utils/String8.h>

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

namespace android {

namespace {

constexpr status_t NO_ERROR = 0;
constexpr status_t NO_MEMORY = -ENOMEM;
constexpr status_t BAD_VALUE = -EINVAL;

}  // namespace

status_t String8::append(const char* text) {
    if (text == nullptr) return BAD_VALUE;
    try {
        mString.append(text);
    } catch (...) {
        return NO_MEMORY;
    }
    return NO_ERROR;
}

status_t String8::append(const String8& other) {
    try {
        mString.append(other.mString);
    } catch (...) {
        return NO_MEMORY;
    }
    return NO_ERROR;
}

status_t String8::appendFormat(const char* format, ...) {
    if (format == nullptr) return BAD_VALUE;
    va_list args;
    va_start(args, format);
    va_list measureArgs;
    va_copy(measureArgs, args);
    int length = vsnprintf(nullptr, 0, format, measureArgs);
    va_end(measureArgs);
    status_t result = NO_ERROR;
    if (length < 0) {
        result = BAD_VALUE;
    } else if (length > 0) {
        size_t oldSize = mString.size();
        try {
            // vsnprintf writes the terminator too; std::string always has room for one past size().
            mString.resize(oldSize + static_cast<size_t>(length));
            vsnprintf(&mString[oldSize], static_cast<size_t>(length) + 1, format, args);
        } catch (...) {
            mString.resize(oldSize);
            result = NO_MEMORY;
        }
    }
    va_end(args);
    return result;
}

}  // namespace android
