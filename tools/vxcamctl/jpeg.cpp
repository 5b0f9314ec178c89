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
            "holds before it, or the JPEG it describes does not begin with SOI (FF D8) and end\n"
            "with EOI (FF D9), says so; exit status 1 then.\n"
            "\n"
            "options:\n"
            "  -h, --help   show this text\n");
}

// A consumer of the blob finds the image by these two markers; a size that misses either hands
// it a truncated or padded JPEG.
unsigned CheckMarkers(const char* path, const std::vector<uint8_t>& buffer, uint32_t jpegSize) {
    unsigned problems = 0;
    if (jpegSize < 4) {
        printf("%s: a JPEG of %u bytes cannot hold both SOI and EOI\n", path, jpegSize);
        return 1;
    }
    if (buffer[0] != 0xFF || buffer[1] != 0xD8) {
        printf("%s: the JPEG does not start with SOI (FF D8) but with %02X %02X\n", path, buffer[0],
               buffer[1]);
        ++problems;
    }
    if (buffer[jpegSize - 2] != 0xFF || buffer[jpegSize - 1] != 0xD9) {
        printf("%s: the JPEG's %u bytes do not end with EOI (FF D9) but with %02X %02X\n", path,
               jpegSize, buffer[jpegSize - 2], buffer[jpegSize - 1]);
        ++problems;
    }
    return problems;
}

}  // namespace

int RunJpeg(int argc, char** argv) {
    std::vector<const char*> operands;
    int status = kExitOk;
    if (!ParseOperands("jpeg", argc, argv, PrintJpegUsage, &operands, &status)) return status;
    if (operands.empty()) {
        PrintJpegUsage(stderr);
        return kExitUsage;
    }
    if (operands.size() > 1) {
        return UsageError("jpeg", "unexpected argument '%s': jpeg takes one FILE", operands[1]);
    }
    const char* path = operands[0];
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
    if (CheckMarkers(path, buffer, jpegSize) != 0) return kExitFindings;
    printf("%s: JPEG size %u bytes (blob id %d) in a blob buffer of %u bytes\n", path, jpegSize,
           blobId, bufferSize);
    return kExitOk;
}

}  // namespace vxcamctl
