// Host stand-in for libutils' android::String8: the part CallStack users need.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace android {

typedef int32_t status_t;

class String8 {
  public:
    String8() = default;
    String8(const char* text)
        : mString(text != nullptr ? text : "") {}  // NOLINT: implicit as in libutils
    String8(const char* text, size_t length)
        : mString(text != nullptr ? text : "", text != nullptr ? length : 0) {}

    const char* c_str() const { return mString.c_str(); }
    const char* string() const { return mString.c_str(); }
    size_t length() const { return mString.size(); }
    size_t size() const { return mString.size(); }
    bool empty() const { return mString.empty(); }
    bool isEmpty() const { return mString.empty(); }

    status_t append(const char* text);
    status_t append(const String8& other);
    status_t appendFormat(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void clear() { mString.clear(); }

    String8& operator+=(const char* text) {
        append(text);
        return *this;
    }
    operator const char*() const { return mString.c_str(); }  // NOLINT: as in libutils

  private:
    std::string mString;
};

}  // namespace android
