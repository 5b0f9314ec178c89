// Sensor gains, crop intersection and metadata dump files: the scalings and fall-backs hosts rely
// on, and the exact bytes of the dump paths and texts.
#include "VxCamMetaDumpUtils.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <regex>
#include <string>
#include <vector>

#include "TestSupport.h"

// The wall clock, frozen on demand: the library's calls to gettimeofday bind to this definition
// of the test program before libc's.
namespace {
std::atomic<bool> s_clockFrozen{false};
struct timeval s_frozenNow = {};
}  // namespace

extern "C" int gettimeofday(struct timeval* __restrict now, void* __restrict zone) noexcept {
    if (s_clockFrozen.load()) {
        *now = s_frozenNow;
        return 0;
    }
    using Real = int (*)(struct timeval*, void*);
    static const Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "gettimeofday"));
    return real(now, zone);
}

namespace {

using VxCam::VxCamMetaDumpUtils;
using VxCam::VxCamMetaUtil;
using vxcamtest::LogCapture;

// The little-endian bytes of 32-bit fields, as the vendors' metadata holds them.
template <typename Field>
std::vector<uint8_t> Payload(std::initializer_list<Field> fields) {
    std::vector<uint8_t> bytes(fields.size() * sizeof(Field));
    memcpy(bytes.data(), fields.begin(), bytes.size());
    return bytes;
}

float QcomSensorGain(const void* payload) {
    return VxCamMetaUtil::GetQcomSensorGain(payload, 0xFFFFFFFF);
}

TEST(SensorGain, ScalingsAndFallBacks) {
    const struct {
        float (*read)(const void*);
        std::vector<uint8_t> payload;  // empty: a null pointer
        float expected;
    } cases[] = {
            {QcomSensorGain, Payload({150}), 3.0f},
            // Single precision: the integer becomes a float before it is divided.
            {QcomSensorGain, Payload({16777217}), 335544.3125f},
            {QcomSensorGain, {}, -1.0f},  // "no value"
            {VxCamMetaUtil::GetQcomTotalGain, Payload({9.0f, 4.5f}), 4.5f},
            {VxCamMetaUtil::GetMtkSensorGain, Payload({2048}), 2.0f},
            {VxCamMetaUtil::GetMtkSensorGain, {}, 1024.0f},  // one raw unit
            {VxCamMetaUtil::GetMtkTotalGain, Payload({8192}), 2.0f},
            {VxCamMetaUtil::GetMtkAdrcGain, Payload({1.25f, 9.0f}), 1.25f},
            {VxCamMetaUtil::GetMtkAdrcGain, {}, 1.0f},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        const auto& c = cases[i];
        EXPECT_EQ(c.read(c.payload.empty() ? nullptr : c.payload.data()), c.expected) << i;
    }
}

TEST(CropRegion, ClipsOnlyOverlappingRectangles) {
    using Rectangle = std::vector<int32_t>;
    const Rectangle a = {0, 0, 100, 100};
    const struct {
        Rectangle crop, expected;
    } cases[] = {
            {{-10, -10, 110, 110}, {0, 0, 100, 100}},
            {{99, 99, 200, 200}, {99, 99, 100, 100}},
            // Touching edges do not overlap.
            {{100, 0, 200, 100}, {100, 0, 200, 100}},
            {{0, -50, 100, 0}, {0, -50, 100, 0}},
            {{-5, 0, 50, 50, 777}, {0, 0, 50, 50, 777}},
    };
    for (const auto& c : cases) {
        Rectangle reference = a, crop = c.crop;
        VxCamMetaUtil::intersectCropRegion(&reference, &crop);
        EXPECT_EQ(crop, c.expected);
        EXPECT_EQ(reference, a);
    }
    Rectangle rectangle = {-1, -1, 1, 1};
    VxCamMetaUtil::intersectCropRegion(nullptr, &rectangle);
    EXPECT_EQ(rectangle, (Rectangle{-1, -1, 1, 1}));
}

// Under the test's private sysroot.
std::string CameraPath(const std::string& relative) {
    const char* sysroot = getenv("VXCAM_SYSROOT");
    return std::string(sysroot != nullptr ? sysroot : "") + "/data/vendor/camera/" + relative;
}

TEST(MetaDump, FilesAppendInACreatedDirectoryAndNameThePathTheyCouldNotOpen) {
    for (const char* folder : {"meta", "text"}) std::filesystem::remove_all(CameraPath(folder));
    const uint8_t first[] = {'a', 'b'}, second[] = {'c', 'd', 'e'};
    VxCamMetaDumpUtils::WriteFile(first, "f.bin", "meta", 2);
    VxCamMetaDumpUtils::WriteFile(first, "f.bin", "meta", 2);
    VxCamMetaDumpUtils::WriteFile(first, 2, second, 3, "f.bin", "meta/");
    EXPECT_EQ(vxcamtest::ReadFile(CameraPath("meta/f.bin")), "abababcde");
    VxCamMetaDumpUtils::WriteFile(first, -1, second, 0, "g.bin", "meta");
    EXPECT_EQ(std::filesystem::file_size(CameraPath("meta/g.bin")), 0u);
    for (const char* text : {"one\n", "two\n"}) {
        FILE* file = VxCamMetaDumpUtils::OpenTxtFile("lsc.txt", "text");
        ASSERT_NE(file, nullptr);
        fputs(text, file);
        EXPECT_EQ(VxCamMetaDumpUtils::CloseTxtFile(file), 0);
    }
    EXPECT_EQ(vxcamtest::ReadFile(CameraPath("text/lsc.txt")), "one\ntwo\n");
    char joined[16];
    EXPECT_EQ(VxCamMetaDumpUtils::Join("a", "b", joined), joined);
    EXPECT_STREQ(joined, "a/b");

    std::ofstream(CameraPath("blocker")) << "a file, not a directory";
    const std::string longName(240, 'd');  // too long for a device path: refused, not cut
    LogCapture capture;
    EXPECT_EQ(VxCamMetaDumpUtils::OpenTxtFile("x.txt", "no/such/parent"), nullptr);  // silently
    VxCamMetaDumpUtils::WriteFile(first, "f.bin", "blocker/", 1);  // a slash given is not doubled
    VxCamMetaDumpUtils::WriteFile(first, "f.bin", longName.c_str(), 1);
    EXPECT_FALSE(std::filesystem::exists(CameraPath(longName)));
    const std::vector<std::string> messages = capture.Messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_TRUE(std::regex_match(
            messages[0],
            std::regex(R"(\[ERROR   \]\[UTILS  \] VxCamMetaDumpUtils:\d+ WriteFile\(\) )"
                       R"(Failed to open file for writing: /data/vendor/camera/blocker//f\.bin)")))
            << messages[0];
    EXPECT_NE(messages[1].find("Failed to open file for writing: /data/vendor/camera/ddd"),
              std::string::npos);
}

TEST(MetaDump, TimeStampPrintsMicrosecondsWithAtLeastFourDigits) {
    const std::string savedZone = getenv("TZ") != nullptr ? getenv("TZ") : "";
    setenv("TZ", "UTC", 1);
    const time_t kMorning = 1738573507;  // 2025-02-03 09:05:07 UTC
    const struct {
        suseconds_t microseconds;
        const char* expected;
    } cases[] = {{42, "20250203_090507_0042"}, {999999, "20250203_090507_999999"}};
    for (const auto& c : cases) {
        s_frozenNow = {kMorning, c.microseconds};
        s_clockFrozen = true;
        char text[25];
        VxCamMetaDumpUtils::GetTimeStamp(text);
        EXPECT_STREQ(text, c.expected);
        EXPECT_EQ(VxCamMetaDumpUtils::GetTimeMs(), kMorning * 1000 + c.microseconds / 1000);
    }
    s_clockFrozen = false;
    savedZone.empty() ? unsetenv("TZ") : setenv("TZ", savedZone.c_str(), 1);
}

std::string LensShadingText(int32_t width, int32_t height) {
    static float table[4][1024];
    for (int channel = 0; channel < 4; ++channel) {
        for (int i = 0; i < 1024; ++i) table[channel][i] = channel * 100.0f + i * 0.5f;
    }
    char* text = nullptr;
    size_t length = 0;
    FILE* stream = open_memstream(&text, &length);
    VxCamMetaDumpUtils::dumpLensShadingTable(stream, 0, 1024, table, width, height);
    fclose(stream);
    std::string result(text, length);
    free(text);
    return result;
}

TEST(MetaDumpText, LensShadingTableLayout) {
    // clang-format off
    EXPECT_EQ(LensShadingText(3, 2),
              "\nbEnableLSC:1\nnLscChannelLength:1024\nlsc_width:3\nlsc_height:2\n\n"
              " =======LSC Table R=======\n0.000000, 0.500000, 1.000000, \n"
              "1.500000, 2.000000, 2.500000, \n"
              " =======LSC Table Gr=======\n100.000000, 100.500000, 101.000000, \n"
              "101.500000, 102.000000, 102.500000, \n"
              " =======LSC Table Gb=======\n200.000000, 200.500000, 201.000000, \n"
              "201.500000, 202.000000, 202.500000, \n"
              " =======LSC Table B=======\n300.000000, 300.500000, 301.000000, \n"
              "301.500000, 302.000000, 302.500000, \n");
    // clang-format on
    // The channels lie back to back: a grid larger than 1024 values reads on into the next
    // channel, and only the last one, which would read past the table, ends its rows early.
    const std::string large = LensShadingText(40, 40);
    const size_t gr = large.find(" =======LSC Table Gr");
    EXPECT_EQ(std::count(large.begin(), large.begin() + gr, ','), 1600);
    EXPECT_EQ(large.substr(gr - 13, 13), "387.500000, \n");  // Gr's 576th value
    EXPECT_EQ(large.substr(large.size() - 27), "811.500000, \n" + std::string(14, '\n'));
}

}  // namespace
