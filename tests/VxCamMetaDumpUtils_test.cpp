// Sensor gains, crop intersection and metadata dump files: the scalings and fall-backs hosts rely
// on, and the exact bytes of the dump paths and texts.
#include "VxCamMetaDumpUtils.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <initializer_list>
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
    static_assert(sizeof(Field) == 4, "payload fields are 32-bit");
    std::vector<uint8_t> bytes(fields.size() * 4);
    memcpy(bytes.data(), fields.begin(), bytes.size());
    return bytes;
}

float QcomSensorGain(const void* payload) {
    return VxCamMetaUtil::GetQcomSensorGain(payload, 0xFFFFFFFF);
}

TEST(SensorGain, ScalingsAndFallBacks) {
    struct Case {
        const char* name;
        float (*read)(const void*);
        std::vector<uint8_t> payload;
        float expected;
    };
    const Case cases[] = {
            {"QcomSensor", QcomSensorGain, Payload({150}), 3.0f},
            {"QcomSensor", QcomSensorGain, Payload({-50, 7}), -1.0f},
            // Single precision: the integer becomes a float before it is divided.
            {"QcomSensor", QcomSensorGain, Payload({16777217}), 335544.3125f},
            {"QcomTotal", VxCamMetaUtil::GetQcomTotalGain, Payload({9.0f, 4.5f}), 4.5f},
            {"MtkSensor", VxCamMetaUtil::GetMtkSensorGain, Payload({2048}), 2.0f},
            {"MtkSensor", VxCamMetaUtil::GetMtkSensorGain, Payload({-1}), -0.0009765625f},
            {"MtkTotal", VxCamMetaUtil::GetMtkTotalGain, Payload({8192}), 2.0f},
            {"MtkTotal", VxCamMetaUtil::GetMtkTotalGain, Payload({1}), 0.000244140625f},
            {"MtkAdrc", VxCamMetaUtil::GetMtkAdrcGain, Payload({1.25f, 9.0f}), 1.25f},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.read(c.payload.data()), c.expected) << c.name;
    }
    // No payload: a "no value" marker for the Qualcomm sensor gain, one raw unit for MediaTek's.
    EXPECT_EQ(VxCamMetaUtil::GetQcomSensorGain(nullptr, 0), -1.0f);
    EXPECT_EQ(VxCamMetaUtil::GetMtkSensorGain(nullptr), 1024.0f);
    EXPECT_EQ(VxCamMetaUtil::GetQcomTotalGain(nullptr), 1.0f);
    EXPECT_EQ(VxCamMetaUtil::GetMtkTotalGain(nullptr), 1.0f);
    EXPECT_EQ(VxCamMetaUtil::GetMtkAdrcGain(nullptr), 1.0f);
}

TEST(CropRegion, ClipsOnlyOverlappingRectangles) {
    struct Case {
        std::vector<int32_t> reference;
        std::vector<int32_t> crop;
        std::vector<int32_t> expected;
    };
    const Case cases[] = {
            {{0, 0, 4000, 3000}, {-100, 500, 4500, 2500}, {0, 500, 4000, 2500}},
            {{0, 0, 100, 100}, {-10, -10, 110, 110}, {0, 0, 100, 100}},
            {{0, 0, 100, 100}, {99, 99, 200, 200}, {99, 99, 100, 100}},
            {{0, 0, 100, 100}, {10, 10, 20, 20}, {10, 10, 20, 20}},
            {{0, 0, 100, 100}, {100, 0, 200, 100}, {100, 0, 200, 100}},  // touching: no overlap
            {{0, 0, 100, 100}, {0, 100, 100, 200}, {0, 100, 100, 200}},
            {{0, 0, 100, 100}, {-50, 0, 0, 100}, {-50, 0, 0, 100}},
            {{0, 0, 100, 100}, {200, 200, 300, 300}, {200, 200, 300, 300}},
            {{0, 0, 100, 100}, {-5, 0, 50, 50, 777}, {0, 0, 50, 50, 777}},
    };
    for (Case c : cases) {
        std::vector<int32_t> reference = c.reference;
        VxCamMetaUtil::intersectCropRegion(&reference, &c.crop);
        EXPECT_EQ(c.crop, c.expected);
        EXPECT_EQ(reference, c.reference);
    }
    std::vector<int32_t> rectangle = {0, 0, 1, 1};
    VxCamMetaUtil::intersectCropRegion(nullptr, &rectangle);
    VxCamMetaUtil::intersectCropRegion(&rectangle, nullptr);
    EXPECT_EQ(rectangle, (std::vector<int32_t>{0, 0, 1, 1}));
}

// ---- Dump files ---------------------------------------------------------------------------------

class MetaDump : public ::testing::Test {
  protected:
    void SetUp() override {
        const char* saved = getenv("VXCAM_SYSROOT");
        m_hadSysroot = saved != nullptr;
        if (m_hadSysroot) m_savedSysroot = saved;
        std::filesystem::create_directories(m_root / "data/vendor/camera");
        setenv("VXCAM_SYSROOT", m_root.Path().c_str(), 1);
    }
    void TearDown() override {
        if (m_hadSysroot) {
            setenv("VXCAM_SYSROOT", m_savedSysroot.c_str(), 1);
        } else {
            unsetenv("VXCAM_SYSROOT");
        }
    }
    std::string CameraPath(const std::string& relative) const {
        return m_root / ("data/vendor/camera/" + relative);
    }

  private:
    vxcamtest::TempDir m_root;
    bool m_hadSysroot = false;
    std::string m_savedSysroot;
};

TEST_F(MetaDump, WriteFileCreatesTheDirectoryAndAppends) {
    const uint8_t first[] = {'a', 'b'};
    const uint8_t second[] = {'c', 'd', 'e'};
    VxCamMetaDumpUtils::WriteFile(first, "f.bin", "meta", 2);
    VxCamMetaDumpUtils::WriteFile(first, "f.bin", "meta", 2);
    EXPECT_EQ(vxcamtest::ReadFile(CameraPath("meta/f.bin")), "abab");
    VxCamMetaDumpUtils::WriteFile(first, 2, second, 3, "f.bin", "meta/");
    EXPECT_EQ(vxcamtest::ReadFile(CameraPath("meta/f.bin")), "abababcde");
    VxCamMetaDumpUtils::WriteFile(first, -1, second, 0, "g.bin", "meta");
    EXPECT_TRUE(std::filesystem::exists(CameraPath("meta/g.bin")));
    EXPECT_EQ(std::filesystem::file_size(CameraPath("meta/g.bin")), 0u);
}

TEST_F(MetaDump, WriteFileReportsThePathItCouldNotOpen) {
    const uint8_t data[] = {1};
    { std::ofstream(CameraPath("blocker")) << "a file, not a directory"; }
    LogCapture capture;
    VxCamMetaDumpUtils::WriteFile(data, "f.bin", "blocker", 1);
    // Too long for a device path: refused, never cut short and written elsewhere.
    const std::string longName(240, 'd');
    VxCamMetaDumpUtils::WriteFile(data, "f.bin", longName.c_str(), 1);
    EXPECT_FALSE(std::filesystem::exists(CameraPath(longName)));
    const std::vector<std::string> messages = capture.Messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_NE(messages[0].find("[ERROR   ][UTILS  ] VxCamMetaDumpUtils:"), std::string::npos);
    EXPECT_NE(messages[0].find(" WriteFile() Failed to open file for writing: "
                               "/data/vendor/camera/blocker//f.bin"),
              std::string::npos)
            << messages[0];
    EXPECT_NE(messages[1].find("Failed to open file for writing: /data/vendor/camera/ddd"),
              std::string::npos);
}

TEST_F(MetaDump, TextFilesOpenForAppendingInACreatedDirectory) {
    for (const char* text : {"one\n", "two\n"}) {
        FILE* file = VxCamMetaDumpUtils::OpenTxtFile("lsc.txt", "text");
        ASSERT_NE(file, nullptr);
        fputs(text, file);
        EXPECT_EQ(VxCamMetaDumpUtils::CloseTxtFile(file), 0);
    }
    EXPECT_EQ(vxcamtest::ReadFile(CameraPath("text/lsc.txt")), "one\ntwo\n");
    LogCapture capture;
    EXPECT_EQ(VxCamMetaDumpUtils::OpenTxtFile("x.txt", "no/such/parent"), nullptr);
    EXPECT_TRUE(capture.Lines().empty());
}

TEST(MetaDumpText, Join) {
    char output[16];
    EXPECT_EQ(VxCamMetaDumpUtils::Join("a", "b", output), output);
    EXPECT_STREQ(output, "a/b");
    EXPECT_STREQ(VxCamMetaDumpUtils::Join("dir/", "", output), "dir//");
}

class FrozenClock : public ::testing::Test {
  protected:
    void SetUp() override {
        const char* zone = getenv("TZ");
        m_hadZone = zone != nullptr;
        if (m_hadZone) m_savedZone = zone;
        setenv("TZ", "UTC", 1);
        tzset();
    }
    void TearDown() override {
        s_clockFrozen = false;
        if (m_hadZone) {
            setenv("TZ", m_savedZone.c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
    static void Freeze(time_t seconds, suseconds_t microseconds) {
        s_frozenNow = {seconds, microseconds};
        s_clockFrozen = true;
    }

  private:
    bool m_hadZone = false;
    std::string m_savedZone;
};

TEST_F(FrozenClock, TimeStampPrintsMicrosecondsWithAtLeastFourDigits) {
    const time_t kMorning = 1738573507;  // 2025-02-03 09:05:07 UTC
    const struct {
        suseconds_t microseconds;
        const char* expected;
    } cases[] = {
            {42, "20250203_090507_0042"},
            {123456, "20250203_090507_123456"},
            {0, "20250203_090507_0000"},
            {9999, "20250203_090507_9999"},
    };
    for (const auto& c : cases) {
        Freeze(kMorning, c.microseconds);
        char text[25];
        memset(text, 'x', sizeof(text));
        VxCamMetaDumpUtils::GetTimeStamp(text);
        EXPECT_STREQ(text, c.expected);
    }
    Freeze(kMorning, 999999);
    EXPECT_EQ(VxCamMetaDumpUtils::GetTimeMs(), 1738573507999);
    Freeze(kMorning, 999);
    EXPECT_EQ(VxCamMetaDumpUtils::GetTimeMs(), 1738573507000);
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
    const std::string head = "\nbEnableLSC:1\nnLscChannelLength:1024\n";
    EXPECT_EQ(LensShadingText(3, 2), head + "lsc_width:3\nlsc_height:2\n\n"
                                            " =======LSC Table R=======\n"
                                            "0.000000, 0.500000, 1.000000, \n"
                                            "1.500000, 2.000000, 2.500000, \n"
                                            " =======LSC Table Gr=======\n"
                                            "100.000000, 100.500000, 101.000000, \n"
                                            "101.500000, 102.000000, 102.500000, \n"
                                            " =======LSC Table Gb=======\n"
                                            "200.000000, 200.500000, 201.000000, \n"
                                            "201.500000, 202.000000, 202.500000, \n"
                                            " =======LSC Table B=======\n"
                                            "300.000000, 300.500000, 301.000000, \n"
                                            "301.500000, 302.000000, 302.500000, \n");
    EXPECT_EQ(LensShadingText(2, 0), head + "lsc_width:2\nlsc_height:0\n\n"
                                            " =======LSC Table R=======\n"
                                            " =======LSC Table Gr=======\n"
                                            " =======LSC Table Gb=======\n"
                                            " =======LSC Table B=======\n");
    EXPECT_EQ(LensShadingText(0, 2), head + "lsc_width:0\nlsc_height:2\n\n"
                                            " =======LSC Table R=======\n\n\n"
                                            " =======LSC Table Gr=======\n\n\n"
                                            " =======LSC Table Gb=======\n\n\n"
                                            " =======LSC Table B=======\n\n\n");
    // A grid larger than the 1024 values of a channel stops at its end.
    const std::string large = LensShadingText(40, 40);
    EXPECT_NE(large.find("511.500000, \n" + std::string(14, '\n') + " =======LSC Table Gr"),
              std::string::npos);
}

}  // namespace
