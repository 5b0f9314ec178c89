// OS services: compression and checksums, with the zlib the camera stack is built against.
//
// Part of OsUtils, whose other members are in VxCamCommonUtils.cpp: its messages name that file as
// their source, as every OsUtils message does.
#define VXCAM_LOG_SOURCE "hardware/camera/common/utils/VxCamCommonUtils.cpp"

#include "VxCamCommonUtils.h"

#include <stdint.h>
#include <zlib.h>

#include "VxCamDebug.h"

namespace VxCam {

namespace {

// The zlib the camera stack is built against on the device. The initialisers check only that the
// version's first character (the major version) matches their own and that the stream record has
// their size, so the same values are accepted by any zlib 1.x, the host's included.
constexpr const char kZlibVersion[] = "1.3.0.1-motley";
constexpr int kZlibStreamSize = 112;
static_assert(ZLIB_VERSION[0] == kZlibVersion[0], "zlib refuses another major version");
static_assert(sizeof(void*) != 8 || sizeof(z_stream) == kZlibStreamSize,
              "zlib's stream record differs from the device's");

// Capacities of decompression buffers carry this much slack beyond the data.
constexpr uint32_t kUncompressSlack = 128;
// The most output whose estimate, slack included, fits the estimate's 32 bits.
constexpr uLong kLargestEstimatedOutput = UINT32_MAX - kUncompressSlack;
constexpr size_t kEstimateWindowSize = 4096;

}  // namespace

int OsUtils::Compress(const uint8_t* pInputStream, uint32_t inputLength, uint8_t** ppOutputStream,
                      uint32_t* pOutputLength) {
    uint8_t* output = ppOutputStream != nullptr ? *ppOutputStream : nullptr;
    // Each line prints the null it found as a number: 0.
    if (output == nullptr) {
        VXCAM_LOGI(UTILS, "Invalid *ppOutputStream  =%d", 0);
        return 1;
    }
    if (pOutputLength == nullptr) {
        VXCAM_LOGI(UTILS, "Invalid pOutputLength  =%d", 0);
        return 1;
    }
    z_stream stream = {};
    stream.next_in = const_cast<Bytef*>(pInputStream);
    stream.avail_in = inputLength;
    // The output window is the input's length: data that does not shrink cannot finish.
    stream.next_out = output;
    stream.avail_out = inputLength;

    int result = deflateInit_(&stream, Z_BEST_COMPRESSION, kZlibVersion, kZlibStreamSize);
    if (result < 0) {
        VXCAM_LOGI(UTILS, "deflateInit failed rc =%d", result);
    } else {
        result = deflate(&stream, Z_FINISH);
        if (result < 0) {
            // deflateEnd is deliberately not called here: hosts rely on this path leaving the
            // stream as deflate left it.
            VXCAM_LOGI(UTILS, "deflate failed rc =%d", result);
        } else {
            const bool finished = result == Z_STREAM_END;
            VXCAM_LOGV(UTILS, "total_in: %d, total_out:%d", static_cast<int>(stream.total_in),
                       static_cast<int>(stream.total_out));
            result = deflateEnd(&stream);
            *pOutputLength = static_cast<uint32_t>(stream.total_out);
            // deflateEnd reports Z_DATA_ERROR for a stream that ran out of room while input was
            // left, but Z_OK once all input was taken in, even if the end of the stream never
            // fitted. Either way the caller would get a cut stream: both fail alike.
            if (result >= 0 && !finished) result = Z_DATA_ERROR;
            if (result < 0) {
                VXCAM_LOGI(UTILS, "deflateEnd failed rc =%d", result);
            } else {
                return 0;
            }
        }
    }
    VXCAM_LOGI(UTILS, "Failed rc =%d", result);
    return 1;
}

int OsUtils::UnCompress(const uint8_t* pInputStream, uint32_t inputLength, uint8_t** ppOutputStream,
                        uint32_t* pOutputLength) {
    uint8_t* output = ppOutputStream != nullptr ? *ppOutputStream : nullptr;
    const uint32_t capacity = pOutputLength != nullptr ? *pOutputLength : 0;
    if (pInputStream == nullptr || inputLength == 0 || output == nullptr || capacity == 0) {
        VXCAM_LOGI(UTILS,
                   "Invalid input: pInputStream: %p, inputLength =%d, *ppOutputStream: %p, "
                   "*pOutputLength: %d ",
                   static_cast<const void*>(pInputStream), static_cast<int>(inputLength),
                   static_cast<void*>(output), static_cast<int>(capacity));
        return 1;
    }
    z_stream stream = {};
    stream.next_in = const_cast<Bytef*>(pInputStream);
    stream.avail_in = inputLength;
    stream.next_out = output;
    // Capacities of 128 or less wrap around: callers size buffers from the estimate, which always
    // exceeds 128.
    stream.avail_out = capacity - kUncompressSlack;

    int result = inflateInit_(&stream, kZlibVersion, kZlibStreamSize);
    if (result < 0) {
        VXCAM_LOGI(UTILS, "Init Failed rc =%d", result);
        return 1;
    }
    result = inflate(&stream, Z_FINISH);
    if (result < 0) {
        // As in Compress, a failed stream is left as inflate left it.
        VXCAM_LOGI(UTILS, "Inflate Failed rc =%d, total_in: %d, total_out:%d", result,
                   static_cast<int>(stream.total_in), static_cast<int>(stream.total_out));
        return 1;
    }
    result = inflateEnd(&stream);
    if (result < 0) {
        VXCAM_LOGI(UTILS, "inflateEnd Failed rc =%d", result);
        return 1;
    }
    *pOutputLength = static_cast<uint32_t>(stream.total_out);
    return 0;
}

int OsUtils::FindEstimatedSizeOfUnCompressed(const uint8_t* pInputStream, uint32_t inputLength,
                                             uint32_t* pEstimatedSize) {
    if (pEstimatedSize == nullptr) return 1;
    *pEstimatedSize = 0;
    // zlib would answer Z_STREAM_ERROR to every call, and the loop below goes on after that.
    if (pInputStream == nullptr && inputLength != 0) {
        VXCAM_LOGI(UTILS, "Error rc = %d", Z_STREAM_ERROR);
        return 1;
    }
    Bytef window[kEstimateWindowSize];
    z_stream stream = {};
    stream.next_in = const_cast<Bytef*>(pInputStream);
    stream.avail_in = inputLength;

    int result = inflateInit_(&stream, kZlibVersion, kZlibStreamSize);
    if (result < 0) {
        VXCAM_LOGI(UTILS, "Inflate init Failed rc =%d", result);
        return 1;
    }
    bool ended = false;
    for (bool more = true; more;) {
        // Only the count matters: every round overwrites the window.
        stream.next_out = window;
        stream.avail_out = sizeof(window);
        result = inflate(&stream, Z_NO_FLUSH);
        // Past the largest output the estimate would wrap to a small value, which a host would
        // allocate and overrun. The stream fails as one whose output does not fit, as soon as that
        // is known: a stream of any length costs at most 4 GiB of inflating.
        if ((result == Z_OK || result == Z_STREAM_END) &&
            stream.total_out > kLargestEstimatedOutput) {
            result = Z_BUF_ERROR;
        }
        switch (result) {
            case Z_OK:
                break;
            case Z_STREAM_END:
                VXCAM_LOGI(UTILS, "rc = Z_STREAM_END");
                ended = true;
                more = false;
                break;
            case Z_NEED_DICT:
            case Z_DATA_ERROR:
            case Z_MEM_ERROR:
            case Z_BUF_ERROR:  // a truncated stream ends here
                VXCAM_LOGI(UTILS, "Error rc = %d", result);
                more = false;
                break;
            default:
                VXCAM_LOGI(UTILS, "unknow Error rc = %d", result);
                break;
        }
    }
    result = inflateEnd(&stream);
    if (result < 0) {
        VXCAM_LOGI(UTILS, "Failed rc =%d", result);
        return 1;
    }
    if (!ended) return 1;
    *pEstimatedSize = static_cast<uint32_t>(stream.total_out) + kUncompressSlack;
    return 0;
}

unsigned long OsUtils::ComputeCRC32(unsigned long crc, const uint8_t* pBuffer, uint32_t length) {
    return crc32(crc, pBuffer, length);
}

}  // namespace VxCam
