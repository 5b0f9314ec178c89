// Sensor gain and crop helpers, and metadata dump files.
#define VXCAM_LOG_SOURCE "hardware/camera/common/utils/VxCamMetaDumpUtils"
#include "VxCamMetaDumpUtils.h"

#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>

#include "VxCamCommonUtils.h"
#include "VxCamDebug.h"
#include "VxCamPortPath.h"

namespace VxCam {

namespace {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "vendor metadata payloads are read in the CPU's byte order");

// ---- Gains ------------------------------------------------------------------------------------

int32_t LoadInt32(const void* payload, size_t offset) {
    int32_t value = 0;
    memcpy(&value, static_cast<const uint8_t*>(payload) + offset, sizeof(value));
    return value;
}

float LoadFloat(const void* payload, size_t offset) {
    float value = 0.0f;
    memcpy(&value, static_cast<const uint8_t*>(payload) + offset, sizeof(value));
    return value;
}

// ---- Dump paths -------------------------------------------------------------------------------

constexpr const char kCameraDataDirectory[] = "/data/vendor/camera";

// Device paths are limited to this many bytes; a longer one is treated as a file that cannot be
// opened.
constexpr size_t kDumpPathSize = 256;

// "<base>/<directory>/": the trailing '/' makes file paths "<base>/<directory>//<file>". The file
// system reads the double slash as one; it is kept so that logged paths read as they always have.
bool BuildDirectoryPath(const char* directory, char (&path)[kDumpPathSize]) {
    const int length =
            OsUtils::SNPrintF(path, sizeof(path), "%s/%s", kCameraDataDirectory, directory);
    if (length < 0 || static_cast<size_t>(length) >= sizeof(path)) return false;
    if (path[length - 1] == '/') return true;
    return OsUtils::StrLCat(path, "/", sizeof(path)) < sizeof(path);
}

bool BuildFilePath(const char* directoryPath, const char* fileName, char (&path)[kDumpPathSize]) {
    const int length = OsUtils::SNPrintF(path, sizeof(path), "%s/%s", directoryPath, fileName);
    return length >= 0 && static_cast<size_t>(length) < sizeof(path);
}

void WriteBuffer(const uint8_t* buffer, int32_t size, FILE* file) {
    // A negative size would read far past the buffer; there is nothing to write either way.
    if (buffer == nullptr || size <= 0) return;
    OsUtils::FWrite(buffer, static_cast<size_t>(size), 1, file);
}

// Named like the public operation, whose error line it writes.
void WriteFile(const uint8_t* firstBuffer, int32_t firstSize, const uint8_t* secondBuffer,
               int32_t secondSize, const char* fileName, const char* directory) {
    if (fileName == nullptr || directory == nullptr) return;
    char directoryPath[kDumpPathSize];
    char filePath[kDumpPathSize];
    // Both are built even when the first is cut, so that the error line shows what was asked.
    const bool directoryFits = BuildDirectoryPath(directory, directoryPath);
    const bool fits = BuildFilePath(directoryPath, fileName, filePath) && directoryFits;
    FILE* file = nullptr;
    if (fits) {
        try {
            mkdir(VxCamPort::ResolveDevicePath(directoryPath).c_str(), 0777);
            file = OsUtils::FOpen(VxCamPort::ResolveDevicePath(filePath).c_str(), "ab+");
        } catch (...) {
            // Only the path allocation can throw; reported as a failed open.
        }
    }
    if (file == nullptr) {
        VXCAM_LOGE(UTILS, "Failed to open file for writing: %s", filePath);
        return;
    }
    WriteBuffer(firstBuffer, firstSize, file);
    WriteBuffer(secondBuffer, secondSize, file);
    OsUtils::FClose(file);
}

}  // namespace

// ---- VxCamMetaUtil ----------------------------------------------------------------------------

float VxCamMetaUtil::GetQcomTotalGain(const void* payload) {
    if (payload == nullptr) return 1.0f;
    return LoadFloat(payload, 4);
}

float VxCamMetaUtil::GetQcomSensorGain(const void* payload, uint32_t /*unused*/) {
    if (payload == nullptr) return -1.0f;
    return static_cast<float>(LoadInt32(payload, 0)) / 100.0f * 2.0f;
}

float VxCamMetaUtil::GetMtkSensorGain(const void* payload) {
    if (payload == nullptr) return 1024.0f;
    return static_cast<float>(LoadInt32(payload, 0)) * 0.0009765625f;
}

float VxCamMetaUtil::GetMtkTotalGain(const void* payload) {
    if (payload == nullptr) return 1.0f;
    return static_cast<float>(LoadInt32(payload, 0)) * 0.000244140625f;
}

float VxCamMetaUtil::GetMtkAdrcGain(const void* payload) {
    if (payload == nullptr) return 1.0f;
    return LoadFloat(payload, 0);
}

void VxCamMetaUtil::intersectCropRegion(std::vector<int32_t>* reference,
                                        std::vector<int32_t>* crop) {
    // A rectangle needs its four edges; a shorter vector is left alone.
    if (reference == nullptr || crop == nullptr || reference->size() < 4 || crop->size() < 4) {
        return;
    }
    enum { kLeft, kTop, kRight, kBottom };
    const std::vector<int32_t>& a = *reference;
    std::vector<int32_t>& b = *crop;
    const bool overlap = b[kLeft] < a[kRight] && a[kLeft] < b[kRight] && b[kTop] < a[kBottom] &&
                         a[kTop] < b[kBottom];
    if (!overlap) return;
    if (b[kLeft] < a[kLeft]) b[kLeft] = a[kLeft];
    if (b[kTop] < a[kTop]) b[kTop] = a[kTop];
    if (b[kRight] > a[kRight]) b[kRight] = a[kRight];
    if (b[kBottom] > a[kBottom]) b[kBottom] = a[kBottom];
}

// ---- VxCamMetaDumpUtils -----------------------------------------------------------------------

VxCamMetaDumpUtils::VxCamMetaDumpUtils() {}

VxCamMetaDumpUtils::~VxCamMetaDumpUtils() {}

void VxCamMetaDumpUtils::WriteFile(const uint8_t* buffer, const char* fileName,
                                   const char* directory, int32_t size) {
    VxCam::WriteFile(buffer, size, nullptr, 0, fileName, directory);
}

void VxCamMetaDumpUtils::WriteFile(const uint8_t* firstBuffer, int32_t firstSize,
                                   const uint8_t* secondBuffer, int32_t secondSize,
                                   const char* fileName, const char* directory) {
    VxCam::WriteFile(firstBuffer, firstSize, secondBuffer, secondSize, fileName, directory);
}

FILE* VxCamMetaDumpUtils::OpenTxtFile(const char* fileName, const char* directory) {
    if (fileName == nullptr || directory == nullptr) return nullptr;
    char directoryPath[kDumpPathSize];
    char filePath[kDumpPathSize];
    if (!BuildDirectoryPath(directory, directoryPath) ||
        !BuildFilePath(directoryPath, fileName, filePath)) {
        return nullptr;
    }
    try {
        const std::string resolvedDirectory = VxCamPort::ResolveDevicePath(directoryPath);
        if (access(resolvedDirectory.c_str(), F_OK) != 0) mkdir(resolvedDirectory.c_str(), 0777);
        return OsUtils::FOpen(VxCamPort::ResolveDevicePath(filePath).c_str(), "ab+");
    } catch (...) {
        return nullptr;
    }
}

int VxCamMetaDumpUtils::CloseTxtFile(FILE* stream) {
    if (stream == nullptr) return EOF;
    return fclose(stream);
}

char* VxCamMetaDumpUtils::Join(const char* first, const char* second, char* output) {
    if (first == nullptr || second == nullptr || output == nullptr) return output;
    strcpy(output, first);
    strcat(output, "/");
    strcat(output, second);
    return output;
}

int64_t VxCamMetaDumpUtils::GetTimeMs() {
    struct timeval now = {};
    gettimeofday(&now, nullptr);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_usec / 1000;
}

void VxCamMetaDumpUtils::GetTimeStamp(char* output) {
    if (output == nullptr) return;
    VxCamDateTime now = {};
    OsUtils::GetDateTime(&now);
    // The last field is microseconds, not milliseconds, at a minimum width of 4 (4 to 6 digits),
    // as the dump names already on devices have it.
    OsUtils::SNPrintF(output, 25, "%04d%02d%02d_%02d%02d%02d_%04d", now.year + 1900, now.month + 1,
                      now.dayOfMonth, now.hour, now.minute, now.second,
                      static_cast<int>(now.fraction));
}

void VxCamMetaDumpUtils::dumpLensShadingTable(FILE* stream, int /*unused*/, int32_t channelLength,
                                              const float table[4][1024], int32_t width,
                                              int32_t height) {
    if (stream == nullptr || table == nullptr) return;
    static const char* const kHeadings[4] = {
            " =======LSC Table R=======\n",
            " =======LSC Table Gr=======\n",
            " =======LSC Table Gb=======\n",
            " =======LSC Table B=======\n",
    };
    // bEnableLSC is always 1: a table handed over to be dumped is in use.
    OsUtils::FPrintF(stream, "\nbEnableLSC:%d\n", 1);
    OsUtils::FPrintF(stream, "nLscChannelLength:%d\n", channelLength);
    OsUtils::FPrintF(stream, "lsc_width:%d\n", width);
    OsUtils::FPrintF(stream, "lsc_height:%d\n\n", height);
    // The four channels lie back to back in one block: a grid larger than a channel's 1024 values
    // reads on into the next channel. Only the end of the block bounds the rows: the last channel
    // ends its rows early rather than read past the table.
    constexpr int64_t kTableSize = 4 * 1024;
    const float* values = table[0];
    for (int channel = 0; channel < 4; ++channel) {
        OsUtils::FPrintF(stream, "%s", kHeadings[channel]);
        for (int64_t row = 0; row < height; ++row) {
            for (int64_t column = 0; column < width; ++column) {
                const int64_t index = channel * int64_t{1024} + row * width + column;
                if (index >= kTableSize) break;
                OsUtils::FPrintF(stream, "%.06f, ", static_cast<double>(values[index]));
            }
            OsUtils::FPrintF(stream, "\n");
        }
    }
}

}  // namespace VxCam
