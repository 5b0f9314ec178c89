// libcutils properties on a host: a process-wide store seeded from the sysroot's build.prop, with
// the parsing rules of Android's property getters so that a value reads the same on both.

#include <cutils/properties.h>

#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include <VxCamPortPath.h>
#include <android/log.h>

namespace {

constexpr size_t kMaxValueLength = PROPERTY_VALUE_MAX - 1;

struct Store {
    std::shared_mutex mutex;
    std::map<std::string, std::string> values;
    std::once_flag loaded;
};

// Leaked on purpose: threads and atexit handlers still read properties during static destruction.
Store& GetStore() {
    static Store* store = new Store;
    return *store;
}

bool IsSpace(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v';
}

std::string Trim(const char* begin, const char* end) {
    while (begin < end && IsSpace(*begin)) ++begin;
    while (end > begin && IsSpace(end[-1])) --end;
    return std::string(begin, end);
}

struct LoadWarning {
    unsigned line;
    std::string key;
};

void LoadBuildProp(Store* store, const std::string& path, std::vector<LoadWarning>* warnings) {
    FILE* file = fopen(path.c_str(), "re");
    if (file == nullptr) return;
    char* line = nullptr;
    size_t capacity = 0;
    unsigned lineNumber = 0;
    ssize_t length;
    std::unique_lock<std::shared_mutex> lock(store->mutex);
    while ((length = getline(&line, &capacity, file)) >= 0) {
        ++lineNumber;
        const char* begin = line;
        const char* end = line + length;
        while (begin < end && IsSpace(*begin)) ++begin;
        if (begin == end || *begin == '#') continue;
        const char* equals = static_cast<const char*>(memchr(begin, '=', end - begin));
        if (equals == nullptr) continue;
        std::string key = Trim(begin, equals);
        if (key.empty()) continue;
        std::string value = Trim(equals + 1, end);
        if (value.size() > kMaxValueLength) {
            warnings->push_back({lineNumber, std::move(key)});
            continue;
        }
        store->values[key] = std::move(value);
    }
    free(line);
    fclose(file);
}

// The first caller loads the file. Its warnings are logged only after the load has finished, so
// that a logger which itself reads properties cannot re-enter the one-time load and deadlock.
Store& LoadedStore() {
    Store& store = GetStore();
    std::vector<LoadWarning> warnings;
    std::string path;
    std::call_once(store.loaded, [&] {
        try {
            path = VxCamPort::ResolveDevicePath("/vendor/build.prop");
            LoadBuildProp(&store, path, &warnings);
        } catch (...) {
            // Out of memory while loading: keep what was read; properties fall back to defaults.
        }
    });
    for (const LoadWarning& warning : warnings) {
        __android_log_print(ANDROID_LOG_WARN, "properties",
                            "%s:%u: value of %s is longer than %zu characters; ignored",
                            path.c_str(), warning.line, warning.key.c_str(), kMaxValueLength);
    }
    return store;
}

size_t CopyValue(char* out, const char* text) {
    size_t length = strnlen(text, kMaxValueLength);
    memcpy(out, text, length);
    out[length] = '\0';
    return length;
}

// Android's property_get_imax: strtoimax with base 0; the default for an absent value, no digits,
// overflow or a value outside [lower, upper]; trailing text after the digits is accepted.
intmax_t GetInteger(const char* key, intmax_t lower, intmax_t upper, intmax_t defaultValue) {
    if (key == nullptr) return defaultValue;
    char buffer[PROPERTY_VALUE_MAX];
    if (property_get(key, buffer, "") <= 0) return defaultValue;
    int savedErrno = errno;
    errno = 0;
    char* end = nullptr;
    intmax_t result = strtoimax(buffer, &end, 0);
    bool overflow = errno == ERANGE;
    errno = savedErrno;
    if (end == buffer || overflow || result < lower || result > upper) return defaultValue;
    return result;
}

}  // namespace

extern "C" {

int property_get(const char* key, char* value, const char* default_value) {
    if (key == nullptr || value == nullptr) return 0;
    try {
        Store& store = LoadedStore();
        std::shared_lock<std::shared_mutex> lock(store.mutex);
        auto found = store.values.find(key);
        if (found != store.values.end() && !found->second.empty()) {
            return static_cast<int>(CopyValue(value, found->second.c_str()));
        }
    } catch (...) {
        // Fall through to the default, as for a property that does not exist.
    }
    if (default_value != nullptr) return static_cast<int>(CopyValue(value, default_value));
    value[0] = '\0';
    return 0;
}

int8_t property_get_bool(const char* key, int8_t default_value) {
    if (key == nullptr) return default_value;
    char buffer[PROPERTY_VALUE_MAX];
    property_get(key, buffer, "");
    static const char* const kTrue[] = {"1", "y", "yes", "on", "true"};
    static const char* const kFalse[] = {"0", "n", "no", "off", "false"};
    for (const char* word : kTrue) {
        if (strcmp(buffer, word) == 0) return 1;
    }
    for (const char* word : kFalse) {
        if (strcmp(buffer, word) == 0) return 0;
    }
    return default_value;
}

int64_t property_get_int64(const char* key, int64_t default_value) {
    return static_cast<int64_t>(GetInteger(key, INT64_MIN, INT64_MAX, default_value));
}

int32_t property_get_int32(const char* key, int32_t default_value) {
    return static_cast<int32_t>(GetInteger(key, INT32_MIN, INT32_MAX, default_value));
}

int property_set(const char* key, const char* value) {
    if (key == nullptr || key[0] == '\0') return -1;
    if (value == nullptr) value = "";
    if (strlen(value) > kMaxValueLength) return -1;
    try {
        // Loading first keeps a later first read from replacing this value with the file's.
        Store& store = LoadedStore();
        std::unique_lock<std::shared_mutex> lock(store.mutex);
        std::string& stored = store.values[key];
        if (strncmp(key, "ro.", 3) == 0 && !stored.empty()) return -1;
        stored = value;
        return 0;
    } catch (...) {
        return -1;
    }
}

int property_list(void (*propfn)(const char* key, const char* value, void* cookie), void* cookie) {
    if (propfn == nullptr) return -1;
    try {
        // A snapshot, so that the callback may read or even set properties without deadlocking.
        std::vector<std::pair<std::string, std::string>> snapshot;
        {
            Store& store = LoadedStore();
            std::shared_lock<std::shared_mutex> lock(store.mutex);
            snapshot.assign(store.values.begin(), store.values.end());
        }
        for (const auto& entry : snapshot)
            propfn(entry.first.c_str(), entry.second.c_str(), cookie);
        return 0;
    } catch (...) {
        return -1;
    }
}

}  // extern "C"
