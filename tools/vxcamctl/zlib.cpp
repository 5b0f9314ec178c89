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
            "usage: vxcamctl zlib compress|decompress|estimate|crc32 FILE [-o OUT]\n"
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
            "  crc32       print the CRC-32 of FILE (from 0) as 8 hex digits; FILE is read a\n"
            "              piece at a time, so it may be of any size\n"
            "\n"
            "Output, data or the printed number, goes to OUT, or to standard output. Exit\n"
            "status 1 when the library's call failed (for example a corrupt or truncated\n"
            "stream).\n"
            "\n"
            "options:\n"
            "  -o, --output OUT  write the result to OUT\n"
            "  -v, --verbose     show the library's own messages (zlib's result codes)\n"
            "  -h, --help        show this text\n");
}

int WriteOutput(const char* path, const uint8_t* data, size_t size) {
    FILE* out = path != nullptr ? fopen(path, "wb") : stdout;
    if (out == nullptr) {
        fprintf(stderr, "vxcamctl zlib: cannot create '%s': %s\n", path, strerror(errno));
        return kExitUsage;
    }
    const bool written = fwrite(data, 1, size, out) == size;
    const int error = written ? 0 : errno;
    const bool closed = out == stdout ? fflush(out) == 0 : fclose(out) == 0;
    if (!written || !closed) {
        fprintf(stderr, "vxcamctl zlib: cannot write '%s': %s\n", path != nullptr ? path : "stdout",
                strerror(written ? errno : error));
        return kExitUsage;
    }
    return kExitOk;
}

int WriteText(const char* path, const std::string& text) {
    return WriteOutput(path, reinterpret_cast<const uint8_t*>(text.data()), text.size());
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

// The CRC needs no whole buffer: the library's call takes the CRC so far, so any length streams
// through it a chunk at a time in constant memory.
int Crc32(const char* input, const char* output) {
    FILE* file = OpenInput("zlib", input);
    if (file == nullptr) return kExitUsage;
    unsigned long crc = 0;
    uint8_t chunk[65536];
    size_t got = 0;
    while ((got = fread(chunk, 1, sizeof(chunk), file)) > 0) {
        crc = OsUtils::ComputeCRC32(crc, chunk, static_cast<uint32_t>(got));
    }
    const int error = ferror(file) != 0 ? errno : 0;
    fclose(file);
    if (error != 0) {
        fprintf(stderr, "vxcamctl zlib: cannot read '%s': %s\n", input, strerror(error));
        return kExitUsage;
    }
    return WriteText(output, Format("%08lx\n", crc));
}

}  // namespace

int RunZlib(int argc, char** argv) {
    static const option kOptions[] = {
            {"output", required_argument, nullptr, 'o'},
            {"verbose", no_argument, nullptr, 'v'},
            {"help", no_argument, nullptr, 'h'},
            {nullptr, 0, nullptr, 0},
    };
    const char* output = nullptr;
    bool help = false;
    std::vector<const char*> operands;
    const bool parsed = ParseOptions(
            "zlib", argc, argv, "o:vh", kOptions,
            [&](int id, const char* value) {
                if (id == 'o') output = value;
                if (id == 'h') help = true;
                if (id == 'v') {
                    VxCam::g_logInfo.infoMask |= VXCAM_GROUP_BIT_UTILS;
                    VxCam::g_logInfo.verboseMask |= VXCAM_GROUP_BIT_UTILS;
                }
                return true;
            },
            &operands);
    if (!parsed) return kExitUsage;
    if (help) {
        PrintZlibUsage(stdout);
        return kExitOk;
    }
    if (operands.empty()) {
        PrintZlibUsage(stderr);
        return kExitUsage;
    }
    const char* operation = operands[0];
    const bool known = strcmp(operation, "compress") == 0 || strcmp(operation, "decompress") == 0 ||
                       strcmp(operation, "estimate") == 0 || strcmp(operation, "crc32") == 0;
    if (!known) {
        return UsageError("zlib",
                          "unknown operation '%s'; the operations are compress, decompress, "
                          "estimate and crc32",
                          operation);
    }
    if (operands.size() < 2) return UsageError("zlib", "%s needs a FILE", operation);
    if (operands.size() > 2) {
        return UsageError("zlib", "unexpected argument '%s': %s takes one FILE", operands[2],
                          operation);
    }
    const char* input = operands[1];
    if (strcmp(operation, "compress") == 0 && output == nullptr && isatty(STDOUT_FILENO)) {
        return UsageError("zlib", "not writing a compressed stream to a terminal; use -o");
    }
    if (strcmp(operation, "crc32") == 0) return Crc32(input, output);

    std::vector<uint8_t> data;
    if (!ReadWholeFile("zlib", input, &data)) return kExitUsage;
    if (strcmp(operation, "compress") == 0) return Compress(input, data, output);
    if (strcmp(operation, "decompress") == 0) return Decompress(input, data, output);
    uint32_t estimate = 0;
    if (!Estimate(input, data, &estimate)) return kExitFindings;
    return WriteText(output, Format("%u\n", estimate));
}

}  // namespace vxcamctl
