// vxcamctl jpeg: the JPEG size held in the blob trailer of a captured blob buffer.
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <vector>

#include "Commands.h"
#include "VxCamDebug.h"
#include "VxCamImageUtils.h"

namespace vxcamctl {

namespace {

constexpr size_t kTrailerSize = 8;

void PrintJpegUsage(FILE* out) {
    fprintf(out,
            "usage: vxcamctl jpeg FILE\n"
            "\n"
            "Reads the blob trailer (blob id, then JPEG size, in the last 8 bytes) of FILE, a\n"
            "whole blob buffer as the HAL hands it over, the way the library reads it, and prints\n"
            "the JPEG size. When the trailer is missing or claims more bytes than the buffer\n"
            "holds before it, says so; exit status 1 then.\n"
            "\n"
            "options:\n"
            "  --help   show this text\n");
}

}  // namespace

int RunJpeg(int argc, char** argv) {
    const char* path = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
            PrintJpegUsage(stdout);
            return kExitOk;
        }
        if (path != nullptr || (argv[i][0] == '-' && argv[i][1] != '\0')) {
            fprintf(stderr, "vxcamctl jpeg: unexpected argument '%s'\n\n", argv[i]);
            PrintJpegUsage(stderr);
            return kExitUsage;
        }
        path = argv[i];
    }
    if (path == nullptr) {
        PrintJpegUsage(stderr);
        return kExitUsage;
    }
    std::vector<uint8_t> buffer;
    if (!ReadWholeFile("jpeg", path, &buffer)) return kExitUsage;
    const uint32_t bufferSize = static_cast<uint32_t>(buffer.size());
    if (bufferSize < kTrailerSize) {
        printf("%s: %u bytes, too small for the %zu-byte blob trailer: no JPEG size\n", path,
               bufferSize, kTrailerSize);
        return kExitFindings;
    }

    // This report states a bad trailer itself; the library's error line would only repeat it.
    VxCam::g_logInfo.systemLogEnable = 0;
    const uint32_t jpegSize = VxCam::VxImageUtils::CalculateJpegSize(buffer.data(), bufferSize);
    int32_t blobId = 0;
    memcpy(&blobId, buffer.data() + bufferSize - kTrailerSize, sizeof(blobId));
    if (blobId != 15 && blobId != 255) {
        printf("%s: blob id %d is neither 15 nor 255, so there is no trailer: the library takes "
               "the whole buffer, %u bytes, as the JPEG size\n",
               path, blobId, jpegSize);
        return kExitFindings;
    }
    if (jpegSize > bufferSize - kTrailerSize) {
        printf("%s: the trailer (blob id %d) claims %u JPEG bytes, but the buffer holds only %u "
               "before it; the library returns %u unchecked\n",
               path, blobId, jpegSize, bufferSize - static_cast<uint32_t>(kTrailerSize), jpegSize);
        return kExitFindings;
    }
    printf("%s: JPEG size %u bytes (blob id %d) in a blob buffer of %u bytes\n", path, jpegSize,
           blobId, bufferSize);
    return kExitOk;
}

}  // namespace vxcamctl
