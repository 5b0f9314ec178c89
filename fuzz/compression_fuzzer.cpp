// UnCompress and FindEstimatedSizeOfUnCompressed on arbitrary bytes and on streams of the
// library's own Compress with bits flipped and ends cut off. Output buffers are heap blocks of
// exactly the stated capacity, so AddressSanitizer catches a write beyond it.
//
// Input: the first byte picks the mode.
//   even: the rest, from the fourth byte on, is the stream as it stands.
//   odd:  byte 1 gives a pattern length n (1..256) and byte 2 a repeat count r (1..64); the payload
//         is the following n bytes repeated r times, and what is left are edits of three bytes
//         each, applied to the compressed payload: an odd first byte cuts the stream at the
//         position of the other two, an even one flips bit (first byte / 2) % 8 there.
// In both modes bytes 1 and 2 also pick the output capacity for a stream without an estimate.
#include <dlfcn.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <zlib.h>

#include <algorithm>
#include <unordered_set>
#include <vector>

#include "FuzzSupport.h"
#include "VxCamCommonUtils.h"

namespace {

using Bytes = std::vector<uint8_t>;
using VxCam::OsUtils;

constexpr uint32_t kSlack = 128;  // every capacity includes it, and it is never written
constexpr uint8_t kUntouched = 0xA5;

// ---- zlib memory kept by failed streams ----------------------------------------------------------
// A stream that fails is left as zlib left it, on purpose, with its memory (a few KiB for each
// corrupt input). Over millions of inputs that would exhaust the run, so the streams the library
// opens take their memory from here, and whatever a call leaves behind is given back after it.
std::unordered_set<void*>& LiveBlocks() {
    static auto* blocks = new std::unordered_set<void*>;
    return *blocks;
}

voidpf KeptAlloc(voidpf, uInt items, uInt size) {
    void* block = calloc(items, size);
    if (block != nullptr) LiveBlocks().insert(block);
    return block;
}

void KeptFree(voidpf, voidpf block) {
    LiveBlocks().erase(block);
    free(block);
}

void ReleaseKeptStreams() {
    for (void* block : LiveBlocks()) free(block);
    LiveBlocks().clear();
}

template <typename Init>
Init RealInit(const char* name) {
    static_assert(sizeof(Init) == sizeof(void*), "a function pointer");
    void* symbol = dlsym(RTLD_NEXT, name);
    FUZZ_CHECK(symbol != nullptr);
    Init init;
    memcpy(&init, &symbol, sizeof(init));
    return init;
}

}  // namespace

// The library's calls reach these first: the stream takes its memory from the blocks above.
extern "C" int inflateInit_(z_streamp stream, const char* version, int streamSize) {
    using Init = int (*)(z_streamp, const char*, int);
    static const Init real = RealInit<Init>("inflateInit_");
    stream->zalloc = KeptAlloc;
    stream->zfree = KeptFree;
    stream->opaque = Z_NULL;
    return real(stream, version, streamSize);
}

extern "C" int deflateInit_(z_streamp stream, int level, const char* version, int streamSize) {
    using Init = int (*)(z_streamp, int, const char*, int);
    static const Init real = RealInit<Init>("deflateInit_");
    stream->zalloc = KeptAlloc;
    stream->zfree = KeptFree;
    stream->opaque = Z_NULL;
    return real(stream, level, version, streamSize);
}

namespace {

// A heap block of exactly `capacity` bytes, all kUntouched.
struct Output {
    explicit Output(uint32_t capacity) : size(capacity), data(static_cast<uint8_t*>(malloc(size))) {
        FUZZ_CHECK(data != nullptr);
        memset(data, kUntouched, size);
    }
    ~Output() { free(data); }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    bool SlackUntouched() const {
        for (uint32_t i = size - kSlack; i < size; ++i) {
            if (data[i] != kUntouched) return false;
        }
        return true;
    }

    uint32_t size;
    uint8_t* data;
};

int UnCompressInto(const Bytes& stream, Output* output, uint32_t* length) {
    uint8_t* buffer = output->data;
    *length = output->size;
    const int result = OsUtils::UnCompress(stream.data(), static_cast<uint32_t>(stream.size()),
                                           &buffer, length);
    ReleaseKeptStreams();
    FUZZ_CHECK(buffer == output->data);  // the caller's buffer, never replaced
    return result;
}

// What must hold for any stream. `original` is the payload when the stream is the unchanged
// output of Compress, else null.
void CheckStream(const Bytes& stream, const Bytes* original, const uint8_t* capacitySeed) {
    // Both read the stream from a heap block of its exact size.
    uint32_t estimate = 0xFFFFFFFFu;
    const int estimated = OsUtils::FindEstimatedSizeOfUnCompressed(
            stream.data(), static_cast<uint32_t>(stream.size()), &estimate);
    ReleaseKeptStreams();
    FUZZ_CHECK(estimated == 0 || estimated == 1);
    if (estimated != 0) FUZZ_CHECK(estimate == 0);
    if (original != nullptr) {
        FUZZ_CHECK(estimated == 0);
        FUZZ_CHECK(estimate == original->size() + kSlack);
    }
    if (stream.empty()) return;  // UnCompress turns it away before zlib; nothing to write into

    // Capacities above the slack only: smaller ones wrap around by contract.
    uint32_t capacity = kSlack + 1 + (capacitySeed[0] | capacitySeed[1] << 8);
    if (estimated == 0) capacity = estimate;
    Output output(capacity);
    uint32_t length = 0;
    const int result = UnCompressInto(stream, &output, &length);
    FUZZ_CHECK(result == 0 || result == 1);
    FUZZ_CHECK(output.SlackUntouched());
    if (result == 0) FUZZ_CHECK(length <= capacity - kSlack);

    if (estimated == 0) {
        // The estimate is exactly enough: the data fits, and zlib itself reads the same bytes.
        FUZZ_CHECK(result == 0);
        FUZZ_CHECK(length == estimate - kSlack);
        Bytes expected(std::max<uint32_t>(length, 1));
        uLongf expectedLength = length;
        FUZZ_CHECK(uncompress(expected.data(), &expectedLength, stream.data(), stream.size()) ==
                   Z_OK);
        ReleaseKeptStreams();
        FUZZ_CHECK(expectedLength == length && memcmp(expected.data(), output.data, length) == 0);
        if (original != nullptr) FUZZ_CHECK(memcmp(original->data(), output.data, length) == 0);
        // One byte less, and the data no longer fits.
        if (length > 0) {
            Output tight(capacity - 1);
            uint32_t tightLength = 0;
            FUZZ_CHECK(UnCompressInto(stream, &tight, &tightLength) == 1);
            FUZZ_CHECK(tight.SlackUntouched());
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    vxcamfuzz::FormatEveryLineQuietly();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3) return 0;
    const uint8_t mode = data[0];
    const uint8_t* capacitySeed = data + 1;
    if ((mode & 1) == 0) {
        const Bytes stream(data + 3, data + size);
        CheckStream(stream, nullptr, capacitySeed);
        return 0;
    }

    const size_t patternLength = std::min<size_t>(size_t{data[1]} + 1, size - 3);
    const size_t repeats = size_t{data[2]} % 64 + 1;
    if (patternLength == 0) return 0;
    Bytes payload;
    for (size_t i = 0; i < repeats; ++i)
        payload.insert(payload.end(), data + 3, data + 3 + patternLength);

    // The output buffer is as long as the input, as Compress requires; ASan guards its end.
    Output compressed(static_cast<uint32_t>(payload.size()));
    uint8_t* buffer = compressed.data;
    uint32_t compressedLength = 0xFFFFFFFFu;
    const int result = OsUtils::Compress(payload.data(), static_cast<uint32_t>(payload.size()),
                                         &buffer, &compressedLength);
    ReleaseKeptStreams();
    FUZZ_CHECK(buffer == compressed.data);
    FUZZ_CHECK(result == 0 || result == 1);
    if (result != 0) {
        // Data that does not shrink enough fails; what was produced still fits the buffer.
        FUZZ_CHECK(compressedLength == 0xFFFFFFFFu || compressedLength <= payload.size());
        return 0;
    }
    FUZZ_CHECK(compressedLength <= payload.size());
    Bytes stream(compressed.data, compressed.data + compressedLength);
    CheckStream(stream, &payload, capacitySeed);

    const uint8_t* edit = data + 3 + patternLength;
    const uint8_t* end = data + size;
    bool edited = false;
    for (; end - edit >= 3 && !stream.empty(); edit += 3) {
        const size_t at = (size_t{edit[1]} << 8 | edit[2]) % stream.size();
        if ((edit[0] & 1) != 0) {
            stream.resize(at);
        } else {
            stream[at] ^= static_cast<uint8_t>(1u << (edit[0] / 2 % 8));
        }
        edited = true;
    }
    if (edited) CheckStream(stream, nullptr, capacitySeed);
    return 0;
}
