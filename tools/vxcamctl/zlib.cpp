// vxcamctl zlib: the library's compression services on a file, so that a compressed dump pulled
// from a device can be inspected on a workstation, and a stream made here read back by any zlib.
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "Commands.h"
#include "VxCamCommonUtils.h"
#include "VxCamDebug.h"

namespace vxcamctl {

namespace {

using VxCam::OsUtils;

void PrintZlibUsage(FILE* out) {
    fprintf(out,
            "usage: vxcamctl zlib compress FILE [-o OUT]\n"
            "       vxcamctl zlib decompress FILE [-o OUT]\n"
            "       vxcamctl zlib estimate FILE\n"
            "       vxcamctl zlib crc32 FILE\n"
            "\n"
            "Runs the library's zlib services on FILE, as the HAL does on a buffer. Streams\n"
            "are in the zlib format (RFC 1950), which Python's zlib module and 'pigz -z' read\n"
            "and write.\n"
            "\n"
            "  compress    compress at level 9 into a buffer of FILE's own size: data that does\n"
            "              not shrink (or an empty file) fails, as in the library\n"
            "  decompress  measure the stream, then decompress it into a buffer of that estimate\n"
            "  estimate    print the capacity a HAL must give to decompress FILE: the\n"
            "              decompressed size plus the library's 128 bytes of slack\n"
            "  crc32       print the CRC-32 of FILE (from 0) as 8 hex digits\n"
            "\n"
            "Output goes to OUT, or to standard output. Exit status 1 when the library's call\n"
            "failed (for example a corrupt or truncated stream).\n"
            "\n"
            "options:\n"
            "  -o, --output OUT  write the result to OUT\n"
            "  -v, --verbose     show the library's own messages (zlib's result codes)\n"
            "  --help            show this text\n");
}

int WriteOutput(const char* path, const uint8_t* data, size_t size) {
    FILE* out = path != nullptr ? fopen(path, "wb") : stdout;
    if (out == nullptr) {
        fprintf(stderr, "vxcamctl zlib: cannot create '%s': %s\n", path, strerror(errno));
        return kExitUsage;
    }
    const bool written = fwrite(data, 1, size, out) == size;
    const bool closed = out == stdout ? fflush(out) == 0 : fclose(out) == 0;
    if (!written || !closed) {
        fprintf(stderr, "vxcamctl zlib: cannot write '%s'\n", path != nullptr ? path : "stdout");
        return kExitUsage;
    }
    return kExitOk;
}

int Compress(const char* input, const std::vector<uint8_t>& data, const char* output) {
    // One byte at least, so that an empty file reaches the library with a real buffer.
    std::vector<uint8_t> buffer(data.empty() ? 1 : data.size());
    uint8_t* pBuffer = buffer.data();
    uint32_t length = 0;
    if (OsUtils::Compress(data.data(), static_cast<uint32_t>(data.size()), &pBuffer, &length) != 0) {
        fprintf(stderr,
                "vxcamctl zlib: cannot compress '%s': the library's output buffer is the input's "
                "size, and this does not fit%s\n",
                input, data.empty() ? " (the file is empty)" : "");
        return kExitFindings;
    }
    return WriteOutput(output, buffer.data(), length);
}

bool Estimate(const char* input, const std::vector<uint8_t>& data, uint32_t* estimate) {
    if (OsUtils::FindEstimatedSizeOfUnCompressed(data.data(), static_cast<uint32_t>(data.size()),
                                                 estimate) != 0) {
        fprintf(stderr, "vxcamctl zlib: '%s' is not a complete zlib stream\n", input);
        return false;
    }
    return true;
}

int Decompress(const char* input, const std::vector<uint8_t>& data, const char* output) {
    uint32_t capacity = 0;
    if (!Estimate(input, data, &capacity)) return kExitFindings;
    std::vector<uint8_t> buffer(capacity);
    uint8_t* pBuffer = buffer.data();
    uint32_t length = capacity;
    if (OsUtils::UnCompress(data.data(), static_cast<uint32_t>(data.size()), &pBuffer, &length) !=
        0) {
        fprintf(stderr, "vxcamctl zlib: cannot decompress '%s'\n", input);
        return kExitFindings;
    }
    return WriteOutput(output, buffer.data(), length);
}

}  // namespace

int RunZlib(int argc, char** argv) {
    const char* operation = nullptr;
    const char* input = nullptr;
    const char* output = nullptr;
    for (int i = 1; i < argc; ++i) {
        const char* argument = argv[i];
        if (strcmp(argument, "--help") == 0 || strcmp(argument, "-h") == 0) {
            PrintZlibUsage(stdout);
            return kExitOk;
        }
        if (strcmp(argument, "-o") == 0 || strcmp(argument, "--output") == 0) {
            if (i + 1 >= argc) {
                fprintf(stderr, "vxcamctl zlib: %s needs a value\n", argument);
                return kExitUsage;
            }
            output = argv[++i];
        } else if (strncmp(argument, "--output=", 9) == 0) {
            output = argument + 9;
        } else if (strcmp(argument, "-v") == 0 || strcmp(argument, "--verbose") == 0) {
            VxCam::g_logInfo.infoMask |= VXCAM_GROUP_BIT_UTILS;
            VxCam::g_logInfo.verboseMask |= VXCAM_GROUP_BIT_UTILS;
        } else if (operation == nullptr) {
            operation = argument;
        } else if (input == nullptr) {
            input = argument;
        } else {
            fprintf(stderr, "vxcamctl zlib: unexpected argument '%s'\n", argument);
            return kExitUsage;
        }
    }
    const bool known = operation != nullptr &&
                       (strcmp(operation, "compress") == 0 || strcmp(operation, "decompress") == 0 ||
                        strcmp(operation, "estimate") == 0 || strcmp(operation, "crc32") == 0);
    if (!known || input == nullptr) {
        if (operation != nullptr && !known) {
            fprintf(stderr, "vxcamctl zlib: unknown operation '%s'\n\n", operation);
        }
        PrintZlibUsage(stderr);
        return kExitUsage;
    }
    const bool writesData = strcmp(operation, "compress") == 0;
    if (writesData && output == nullptr && isatty(STDOUT_FILENO)) {
        fprintf(stderr, "vxcamctl zlib: not writing a compressed stream to a terminal; use -o\n");
        return kExitUsage;
    }

    std::vector<uint8_t> data;
    if (!ReadWholeFile("zlib", input, &data)) return kExitUsage;
    if (strcmp(operation, "compress") == 0) return Compress(input, data, output);
    if (strcmp(operation, "decompress") == 0) return Decompress(input, data, output);
    if (strcmp(operation, "estimate") == 0) {
        uint32_t estimate = 0;
        if (!Estimate(input, data, &estimate)) return kExitFindings;
        printf("%u\n", estimate);
        return kExitOk;
    }
    printf("%08lx\n", OsUtils::ComputeCRC32(0, data.data(), static_cast<uint32_t>(data.size())));
    return kExitOk;
}

}  // namespace vxcamctl
