// libutils' android::String8 and android::VectorImpl, as far as android::CallStack needs them, to
// the declarations of Android's own <utils/String8.h> and <utils/VectorImpl.h>.
//
// Linked privately into the library (hidden), never exported: a real libutils in the same process
// shares its buffers between strings and vectors in a way these do not, so the two must never
// meet. Allocation failures come back as NO_MEMORY, as from libutils, which never throws.

#include <utils/String8.h>
#include <utils/VectorImpl.h>

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace android {

namespace {

char gEmpty[1] = {'\0'};

// A fresh buffer holding `length` bytes of `text` and a terminator, or null.
char* Duplicate(const char* text, size_t length) {
    char* copy = static_cast<char*>(malloc(length + 1));
    if (copy == nullptr) return nullptr;
    memcpy(copy, text, length);
    copy[length] = '\0';
    return copy;
}

void Release(const char* text) {
    if (text != gEmpty) free(const_cast<char*>(text));
}

}  // namespace

String8::String8() : mString(gEmpty) {}

String8::String8(const String8& o) : mString(gEmpty) {
    setTo(o);
}

String8::String8(const char* o) : mString(gEmpty) {
    if (o != nullptr) setTo(o);
}

String8::~String8() {
    Release(mString);
}

size_t String8::length() const {
    return strlen(mString);
}

void String8::setTo(const String8& other) {
    if (&other == this) return;
    setTo(other.mString);
}

status_t String8::setTo(const char* other) {
    if (other == nullptr) return BAD_VALUE;
    char* copy = other[0] != '\0' ? Duplicate(other, strlen(other)) : gEmpty;
    if (copy == nullptr) return NO_MEMORY;
    Release(mString);
    mString = copy;
    return NO_ERROR;
}

status_t String8::append(const String8& other) {
    return append(other.mString, other.length());
}

status_t String8::append(const char* other) {
    if (other == nullptr) return BAD_VALUE;
    return append(other, strlen(other));
}

status_t String8::append(const char* other, size_t numChars) {
    if (other == nullptr) return BAD_VALUE;
    if (numChars == 0) return NO_ERROR;
    const size_t oldLength = length();
    char* grown = static_cast<char*>(realloc(
            mString != gEmpty ? const_cast<char*>(mString) : nullptr, oldLength + numChars + 1));
    if (grown == nullptr) return NO_MEMORY;
    memcpy(grown + oldLength, other, numChars);
    grown[oldLength + numChars] = '\0';
    mString = grown;
    return NO_ERROR;
}

status_t String8::appendFormat(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    status_t result = appendFormatV(fmt, args);
    va_end(args);
    return result;
}

status_t String8::appendFormatV(const char* fmt, va_list args) {
    if (fmt == nullptr) return BAD_VALUE;
    va_list measureArgs;
    va_copy(measureArgs, args);
    int length = vsnprintf(nullptr, 0, fmt, measureArgs);
    va_end(measureArgs);
    if (length < 0) return BAD_VALUE;
    if (length == 0) return NO_ERROR;
    char* text = static_cast<char*>(malloc(static_cast<size_t>(length) + 1));
    if (text == nullptr) return NO_MEMORY;
    vsnprintf(text, static_cast<size_t>(length) + 1, fmt, args);
    status_t result = append(text, static_cast<size_t>(length));
    free(text);
    return result;
}

// ---- VectorImpl: a plain growing array; items move by the element type's own operations ----------

VectorImpl::VectorImpl(size_t itemSize, uint32_t flags)
    : mStorage(nullptr), mCount(0), mFlags(flags), mItemSize(itemSize) {}

VectorImpl::~VectorImpl() {}

// Run by Vector<TYPE>'s destructor, while the element type's operations are still there to call.
void VectorImpl::finish_vector() {
    release_storage();
    mStorage = nullptr;
    mCount = 0;
}

void VectorImpl::release_storage() {
    if (mStorage == nullptr) return;
    if ((mFlags & HAS_TRIVIAL_DTOR) == 0) do_destroy(mStorage, mCount);
    free(mStorage);
}

size_t VectorImpl::itemSize() const {
    return mItemSize;
}

void VectorImpl::clear() {
    release_storage();
    mStorage = nullptr;
    mCount = 0;
}

ssize_t VectorImpl::add(const void* item) {
    // Grows one item at a time: stacks are tens of frames, and this keeps no spare capacity field.
    void* grown = malloc((mCount + 1) * mItemSize);
    if (grown == nullptr) return NO_MEMORY;
    if (mCount > 0) do_move_forward(grown, mStorage, mCount);
    free(mStorage);
    mStorage = grown;
    void* slot = static_cast<char*>(mStorage) + mCount * mItemSize;
    if (item != nullptr) {
        do_copy(slot, item, 1);
    } else {
        do_construct(slot, 1);
    }
    return static_cast<ssize_t>(mCount++);
}

}  // namespace android
