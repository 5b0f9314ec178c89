// Image geometry, the JPEG blob trailer and image dumps, checked against what the HAL relies on:
// Android's HAL format numbers, the rules' boundaries and the exact log and file results.
#include "VxCamImageUtils.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "VxCamDebug.h"

namespace {

using VxCam::ImageFormat;
using VxCam::VxImageUtils;
using vxcamtest::LogCapture;

constexpr uint32_t kDefaultMaxJpegSize = 50331648;

ImageFormat F(uint32_t value) {
    return static_cast<ImageFormat>(value);
}

// The message texts written, without the frame ("[ERROR   ][UTILS  ] File:line Function() ").
std::vector<std::string> Texts(const LogCapture& capture) {
    std::vector<std::string> texts;
    for (const std::string& message : capture.Messages()) {
        const size_t at = message.find("() ");
        texts.push_back(at == std::string::npos ? message : message.substr(at + 3));
    }
    return texts;
}

// Every format value, a few values past the catalogue and the largest.
std::vector<uint32_t> AllFormatValues() {
    std::vector<uint32_t> values;
    for (uint32_t value = 0; value <= 45; ++value) values.push_back(value);
    values.push_back(0xFFFFFFFFu);
    return values;
}

TEST(ImageFormats, HalFormatsAreAndroidsPublishedValues) {
    // HAL_PIXEL_FORMAT_* as Android publishes them.
    constexpr uint32_t kBlob = 0x21, kY8 = 0x20203859, kY16 = 0x20363159, kYcbcr420 = 0x23,
                       kYcbcr422I = 0x14, kRawOpaque = 0x24, kRaw10 = 0x25, kRaw12 = 0x26,
                       kRaw16 = 0x20, kP010 = 0x36, kYv12 = 0x32315659, kYcrcb420Sp = 0x11;
    const std::map<uint32_t, uint32_t> expected = {
            {0, kBlob},        {1, kY8},     {2, kY16},       {3, kYcbcr420}, {4, kYcbcr420},
            {5, kYcbcr422I},   {6, kBlob},   {8, kRawOpaque}, {9, kRaw10},    {10, kRaw16},
            {22, kP010},       {26, kRaw12}, {27, kRaw16},    {33, kY8},      {35, kYv12},
            {36, kYcrcb420Sp}, {37, kBlob},  {38, kBlob},
    };
    for (uint32_t value : AllFormatValues()) {
        LogCapture capture;
        const uint32_t hal = VxImageUtils::ConvertGraphicFormat(F(value));
        const auto known = expected.find(value);
        if (known != expected.end()) {
            EXPECT_EQ(hal, known->second) << "format " << value;
            EXPECT_TRUE(capture.Lines().empty()) << "format " << value;
        } else {
            EXPECT_EQ(hal, kRaw16) << "format " << value;
            EXPECT_EQ(Texts(capture), std::vector<std::string>{"UnKnow image format " +
                                                               std::to_string(int(value)) + " "});
        }
    }
}

TEST(ImageFormats, NamesAcceptanceLayersAndAlignmentsOfEveryValue) {
    const std::map<uint32_t, std::string> names = {
            {0, "jpg"},
            {1, "Y8"},
            {3, "YUV420NV12"},
            {4, "YUV420NV21"},
            {5, "YUV422NV16"},
            {6, "jpg"},
            {9, "RawMIPI10"},
            {10, "RawPlain16"},
            {15, "YUV420NV12TP10"},
            {16, "YUV420NV21TP10"},
            {17, "YUV422NV16TP10"},
            {18, "PD10"},
            {22, "P010"},
            {33, "dmap"},
            {35, "yv12"},
            {36, "YUV420SP"},
            {37, "jpgr"},
            {38, "depthjpeg"},
    };
    const std::set<uint32_t> threeLayers = {3, 4, 5, 22, 35, 36};
    const std::set<uint32_t> oneLayer = {0, 1, 2, 6, 8, 9, 10, 26, 33, 37, 38};  // not Raw16
    const std::set<uint32_t> planeAlign64 = {1, 3, 4, 5, 22, 34, 35, 36};
    const std::set<uint32_t> sliceAlign64 = {3, 4, 5, 22, 34, 35, 36};  // not Y8
    const std::set<uint32_t> align1 = {0, 6, 33, 37, 38};
    const std::set<uint32_t> rejected = {20, 21};

    for (uint32_t value : AllFormatValues()) {
        SCOPED_TRACE("format " + std::to_string(value));
        const std::string number = std::to_string(int(value));
        {
            LogCapture capture;
            const auto name = names.find(value);
            EXPECT_EQ(VxImageUtils::ImageFormatToString(F(value)),
                      name != names.end() ? name->second : "");
            EXPECT_EQ(Texts(capture),
                      name != names.end() ? std::vector<std::string>{}
                                          : std::vector<std::string>{"Invalid format " + number});
        }
        {
            LogCapture capture;
            const bool accepted = value < 39 && rejected.count(value) == 0;
            EXPECT_EQ(VxImageUtils::ConvertFormat(value), accepted ? F(value) : VxCam::Max);
            EXPECT_EQ(Texts(capture),
                      accepted ? std::vector<std::string>{}
                               : std::vector<std::string>{"Invalid format " + number});
        }
        {
            LogCapture capture;
            const bool known = threeLayers.count(value) + oneLayer.count(value) > 0;
            EXPECT_EQ(VxImageUtils::GetLayerCount(F(value)), threeLayers.count(value) ? 3u : 1u);
            EXPECT_EQ(Texts(capture),
                      known ? std::vector<std::string>{}
                            : std::vector<std::string>{"UnKnow image format " + number + " "});
        }
        {
            LogCapture capture;
            EXPECT_EQ(VxImageUtils::GetPlaneAlignment(F(value)), planeAlign64.count(value) ? 64u
                                                                 : align1.count(value)     ? 1u
                                                                                           : 2u);
            EXPECT_EQ(VxImageUtils::GetSliceAlignment(F(value)), sliceAlign64.count(value) ? 64u
                                                                 : align1.count(value)     ? 1u
                                                                                           : 2u);
            EXPECT_TRUE(capture.Lines().empty());
        }
    }
}

TEST(ImageFormats, FailureLinesCarryTheFrame) {
    LogCapture capture;
    EXPECT_EQ(VxImageUtils::GetBufferSize(VxCam::Y16, 10, 10, false), 0u);
    VxImageUtils::ConvertGraphicFormat(VxCam::Format7);
    const std::vector<vxcamtest::LogLine> lines = capture.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(std::regex_match(lines[0].message,
                                 std::regex(R"(\[ERROR   \]\[UTILS  \] VxCamImageUtils:\d+ )"
                                            R"(GetBufferSize\(\) Invalid format 2)")))
            << lines[0].message;
    EXPECT_TRUE(std::regex_match(lines[1].message,
                                 std::regex(R"(\[ERROR   \]\[UTILS  \] VxCamImageUtils:\d+ )"
                                            R"(ConvertGraphicFormat\(\) UnKnow image format 7 )")))
            << lines[1].message;
    EXPECT_EQ(lines[0].priority, ANDROID_LOG_ERROR);
    EXPECT_EQ(lines[0].tag, "VxCam");
}

struct GeometryCase {
    uint32_t alignment;
    uint32_t size;
    uint32_t format;
    uint32_t expected;
};

TEST(ImageGeometry, StrideRulesAtTheirBoundaries) {
    const GeometryCase cases[] = {
            // Caller's alignment: 0 counts as 2, odd as the next even value, 0xFFFFFFFF stays.
            {0, 100, VxCam::YUV420NV12, 100},
            {0, 101, VxCam::YUV420NV12, 102},
            {1, 101, VxCam::YUV420NV21, 102},
            {63, 100, VxCam::Y8, 128},
            {64, 128, VxCam::Y8, 128},
            {64, 129, VxCam::Y8, 192},
            {3, 5, VxCam::YV12, 8},
            {64, 0, VxCam::YUV420SP, 0},
            {0xFFFFFFFF, 100, VxCam::YUV420SP, 0xFFFFFFFF},
            {0xFFFFFFFF, 0xFFFFFFFF, VxCam::YUV420SP, 0xFFFFFFFF},
            {64, 0xFFFFFFF0, VxCam::YUV420NV12, 0},  // wraps
            {2, 0xFFFFFFFF, VxCam::Y8, 0},
            // Width kept, whatever the alignment.
            {64, 4001, VxCam::Jpeg, 4001},
            {64, 4001, VxCam::YUV422NV16, 4001},
            {64, 4001, VxCam::Format34, 4001},
            {64, 4001, VxCam::Max, 4001},
            {64, 4001, 0xFFFFFFFF, 4001},
            // MIPI RAW10: whole 16-byte units.
            {0, 4000, VxCam::RawMIPI10, 4000},
            {0, 4001, VxCam::RawMIPI10, 4016},
            {0, 4015, VxCam::RawMIPI10, 4016},
            {0, 4016, VxCam::RawMIPI10, 4016},
            {0, 0xFFFFFFF1, VxCam::RawMIPI10, 0},
            // Plain 16-bit RAW: two bytes a pixel.
            {64, 4000, VxCam::RawPlain16, 8000},
            {64, 0x80000001, VxCam::RawPlain16, 2},
            // P010: 2x rounded up to 256, 2x itself on a multiple of 128.
            {0, 1920, VxCam::P010, 3840},
            {0, 1921, VxCam::P010, 4096},
            {0, 1984, VxCam::P010, 4096},
            {0, 64, VxCam::P010, 256},
            {0, 128, VxCam::P010, 256},
            {0, 129, VxCam::P010, 512},
            {0, 0, VxCam::P010, 0},
            // TP10: 4 bytes for every 3 pixels.
            {0, 4000, VxCam::YUV420NV12TP10, 5336},
            {0, 4001, VxCam::YUV420NV21TP10, 5336},
            {0, 4002, VxCam::YUV422NV16TP10, 5336},
            {0, 4003, VxCam::YUV420NV12TP10, 5340},
            {0, 1, VxCam::YUV420NV12TP10, 4},
            {0, 0, VxCam::YUV420NV12TP10, 0},
            // PD10: half the width made even, 8 bytes each, rounded up to 192.
            {0, 4032, VxCam::PD10, 16128},
            {0, 4033, VxCam::PD10, 16128},
            {0, 4034, VxCam::PD10, 16320},
            {0, 48, VxCam::PD10, 192},
            {0, 50, VxCam::PD10, 384},
            {0, 2, VxCam::PD10, 192},
            {0, 0, VxCam::PD10, 0},
    };
    for (const GeometryCase& c : cases) {
        EXPECT_EQ(VxImageUtils::GetBufferStride(c.alignment, c.size, F(c.format)), c.expected)
                << "alignment " << c.alignment << " width " << c.size << " format " << c.format;
    }
}

TEST(ImageGeometry, SliceHeightRulesAtTheirBoundaries) {
    const GeometryCase cases[] = {
            {64, 3000, VxCam::PD10, 1504},
            {64, 1081, VxCam::YUV420NV21TP10, 1084},
            {64, 1080, VxCam::YUV420NV12TP10, 1080},
            {64, 1077, VxCam::YUV422NV16TP10, 1080},
            {64, 1081, VxCam::RawPlain16, 1081},
            {64, 1081, VxCam::RawMIPI10, 1081},
            {64, 1081, VxCam::YUV422NV16, 1081},  // 64-byte slices, yet its height stands
            {64, 1081, VxCam::P010, 1081},
            {64, 1081, VxCam::Jpeg, 1081},
            {64, 1081, VxCam::Max + 1, 1081},
            {0, 1081, VxCam::Y8, 1082},
            {64, 1081, VxCam::Y8, 1088},
            {63, 1, VxCam::YV12, 64},
            {64, 1024, VxCam::YUV420SP, 1024},
            {0xFFFFFFFF, 5, VxCam::YUV420NV12, 0xFFFFFFFF},
            {64, 0xFFFFFFC1, VxCam::YUV420NV21, 0},  // wraps
            {0, 0xFFFFFFFD, VxCam::YUV420NV12TP10, 0},
            {0, 2, VxCam::PD10, 32},
            {0, 128, VxCam::PD10, 64},
            {0, 130, VxCam::PD10, 96},
            {0, 0, VxCam::PD10, 0},
    };
    for (const GeometryCase& c : cases) {
        EXPECT_EQ(VxImageUtils::GetSliceHeight(c.alignment, c.size, F(c.format)), c.expected)
                << "alignment " << c.alignment << " height " << c.size << " format " << c.format;
    }
}

// Holds for every size: the alignment rules never shrink a row or overshoot by a whole unit, and
// the formats without a rule keep the dimension.
TEST(ImageGeometry, RulePropertiesHoldForEverySize) {
    const std::set<uint32_t> aligned = {VxCam::Y8, VxCam::YUV420NV12, VxCam::YUV420NV21,
                                        VxCam::YV12, VxCam::YUV420SP};
    const std::set<uint32_t> strideRuled = {9, 10, 15, 16, 17, 18, 22};
    const std::set<uint32_t> heightRuled = {15, 16, 17, 18};
    const uint32_t alignments[] = {0, 1, 2, 3, 7, 16, 63, 64, 100, 127, 128, 4095};
    std::vector<uint32_t> sizes;
    for (uint32_t size = 0; size <= 2200; ++size) sizes.push_back(size);
    for (uint32_t size : {4000u, 4032u, 65535u, 0x7FFFFFFFu, 0xFFFFF000u}) sizes.push_back(size);

    for (uint32_t alignment : alignments) {
        const uint64_t unit = alignment == 0 ? 2 : alignment + (alignment & 1);
        for (uint32_t size : sizes) {
            const uint64_t rounded = (size + unit - 1) / unit * unit;
            for (uint32_t value : aligned) {
                const uint32_t stride = VxImageUtils::GetBufferStride(alignment, size, F(value));
                const uint32_t height = VxImageUtils::GetSliceHeight(alignment, size, F(value));
                ASSERT_EQ(stride, static_cast<uint32_t>(rounded))
                        << "format " << value << " alignment " << alignment << " width " << size;
                ASSERT_EQ(height, static_cast<uint32_t>(rounded))
                        << "format " << value << " alignment " << alignment << " height " << size;
                if (rounded <= 0xFFFFFFFFu) {
                    ASSERT_EQ(stride % unit, 0u);
                    ASSERT_GE(stride, size);
                    ASSERT_LT(stride - size, unit);
                }
            }
        }
    }
    for (uint32_t size : sizes) {
        if (size > 0x10000000u) continue;  // below the 32-bit wrap of the byte-widening rules
        const uint32_t mipi = VxImageUtils::GetBufferStride(0, size, VxCam::RawMIPI10);
        ASSERT_TRUE(mipi % 16 == 0 && mipi >= size && mipi - size < 16) << size;
        const uint32_t p010 = VxImageUtils::GetBufferStride(0, size, VxCam::P010);
        ASSERT_TRUE(p010 % 256 == 0 && p010 >= 2 * size && p010 - 2 * size < 256) << size;
        ASSERT_EQ(VxImageUtils::GetBufferStride(0, size, VxCam::YUV420NV12TP10), 4 * ((size + 2) / 3))
                << size;
        const uint32_t pd = VxImageUtils::GetBufferStride(0, size, VxCam::PD10);
        ASSERT_TRUE(pd % 192 == 0 && pd + 4 >= 4 * size && pd < 4 * size + 8 + 192) << size;
        const uint32_t tpHeight = VxImageUtils::GetSliceHeight(0, size, VxCam::YUV422NV16TP10);
        ASSERT_TRUE(tpHeight % 4 == 0 && tpHeight >= size && tpHeight - size < 4) << size;
        const uint32_t pdHeight = VxImageUtils::GetSliceHeight(0, size, VxCam::PD10);
        ASSERT_TRUE(pdHeight % 32 == 0 && pdHeight >= size / 2 && pdHeight < size / 2 + 2 + 32)
                << size;
        for (uint32_t value = 0; value <= 45; ++value) {
            if (aligned.count(value) == 0 && strideRuled.count(value) == 0) {
                ASSERT_EQ(VxImageUtils::GetBufferStride(64, size, F(value)), size) << value;
            }
            if (aligned.count(value) == 0 && heightRuled.count(value) == 0) {
                ASSERT_EQ(VxImageUtils::GetSliceHeight(64, size, F(value)), size) << value;
            }
        }
    }
}

class ImageBufferSize : public ::testing::Test {
  protected:
    void TearDown() override { VxImageUtils::SetMaxJpegSize(kDefaultMaxJpegSize); }
};

TEST_F(ImageBufferSize, RulesAndTheJpegBound) {
    struct Case {
        uint32_t format;
        uint32_t width;
        uint32_t height;
        uint64_t expected;
    };
    const Case cases[] = {
            // JPEG: bounded, and only Jpeg and Blob round to 4096.
            {VxCam::Jpeg, 1000, 1000, 1003520},
            {VxCam::Blob, 1000, 1000, 1003520},
            {VxCam::Jpgr, 1000, 1000, 1000000},
            {VxCam::DepthJpeg, 1000, 1000, 1000000},
            {VxCam::Jpeg, 4096, 1, 4096},
            {VxCam::Jpeg, 4097, 1, 8192},
            {VxCam::Blob, 1, 1, 4096},
            {VxCam::Jpeg, 0, 0, 0},
            {VxCam::Jpeg, 8000, 8000, kDefaultMaxJpegSize},
            {VxCam::Jpgr, 8000, 8000, kDefaultMaxJpegSize},
            // 1.5 bytes a pixel, truncated; 4:2:2 formats included.
            {VxCam::YUV420NV12, 4000, 3000, 18000000},
            {VxCam::YUV420NV21, 3, 1, 4},
            {VxCam::YUV422NV16, 1, 1, 1},
            {VxCam::YUV422NV16TP10, 2, 2, 6},
            {VxCam::P010, 1920, 1080, 3110400},
            {VxCam::YV12, 5, 1, 7},
            {VxCam::YUV420SP, 4, 1, 6},
            {VxCam::YUV420NV12TP10, 65536, 65536, 0},  // width x height wraps to 0
            {VxCam::YUV420NV12, 65537, 65536, 98304},
            // One byte a pixel, even for the 10- and 16-bit RAW layouts.
            {VxCam::Y8, 4000, 3000, 12000000},
            {VxCam::RawMIPI10, 4000, 3000, 12000000},
            {VxCam::RawPlain16, 4000, 3000, 12000000},
            {VxCam::PD10, 7, 3, 21},
            {VxCam::Dmap, 640, 480, 307200},
            {VxCam::Y8, 65537, 65536, 65536},
    };
    for (const Case& c : cases) {
        for (bool flag : {false, true}) {
            LogCapture capture;
            EXPECT_EQ(VxImageUtils::GetBufferSize(F(c.format), c.width, c.height, flag), c.expected)
                    << "format " << c.format << " " << c.width << "x" << c.height;
            EXPECT_TRUE(capture.Lines().empty());
        }
    }

    VxImageUtils::SetMaxJpegSize(1000001);
    EXPECT_EQ(VxImageUtils::GetBufferSize(VxCam::Jpeg, 2000, 2000, false), 1003520u);
    EXPECT_EQ(VxImageUtils::GetBufferSize(VxCam::Jpgr, 2000, 2000, false), 1000001u);
    EXPECT_EQ(VxImageUtils::GetBufferSize(VxCam::Jpgr, 1000, 1000, false), 1000000u);
    VxImageUtils::SetMaxJpegSize(0xFFFFFFFF);
    EXPECT_EQ(VxImageUtils::GetBufferSize(VxCam::Blob, 0xFFFFFFFF, 1, false), 0x100000000u);
    VxImageUtils::SetMaxJpegSize(0);
    EXPECT_EQ(VxImageUtils::GetBufferSize(VxCam::Jpeg, 100, 100, false), 0u);
}

TEST_F(ImageBufferSize, FormatsWithoutASizeRuleLogAndGiveZero) {
    const std::set<uint32_t> sized = {0,  1,  3,  4,  5,  6,  9,  10, 15,
                                      16, 17, 18, 22, 33, 35, 36, 37, 38};
    for (uint32_t value : AllFormatValues()) {
        if (sized.count(value) != 0) continue;
        LogCapture capture;
        EXPECT_EQ(VxImageUtils::GetBufferSize(F(value), 640, 480, true), 0u) << value;
        EXPECT_EQ(Texts(capture),
                  std::vector<std::string>{"Invalid format " + std::to_string(int(value))});
    }
}

// ---- JPEG blob trailer --------------------------------------------------------------------------

std::vector<uint8_t> BlobWithTrailer(size_t size, std::vector<uint8_t> trailer) {
    std::vector<uint8_t> blob(size, 0xAB);
    std::copy(trailer.begin(), trailer.end(), blob.end() - 8);
    return blob;
}

TEST(JpegBlobTrailer, ReadsTheSizeOnlyBehindAKnownBlobId) {
    struct Case {
        std::vector<uint8_t> trailer;
        uint32_t expected;
        const char* logged;
    };
    const Case cases[] = {
            {{0xFF, 0, 0, 0, 0x10, 0x27, 0, 0}, 10000, nullptr},
            {{0x0F, 0, 0, 0, 0x10, 0x27, 0, 0}, 10000, nullptr},
            {{0xFF, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}, 0xFFFFFFFF, nullptr},  // size not checked
            {{0, 0, 0, 0, 0x10, 0x27, 0, 0}, 4096, "Blob Id 0 miss match"},
            {{0xFF, 0, 0, 1, 0x10, 0x27, 0, 0}, 4096, "Blob Id 16777471 miss match"},
            {{0x0E, 0, 0, 0, 0x10, 0x27, 0, 0}, 4096, "Blob Id 14 miss match"},
            {{0xFF, 0xFF, 0xFF, 0xFF, 0x10, 0x27, 0, 0}, 4096, "Blob Id -1 miss match"},
    };
    for (const Case& c : cases) {
        std::vector<uint8_t> blob = BlobWithTrailer(4096, c.trailer);
        LogCapture capture;
        EXPECT_EQ(VxImageUtils::CalculateJpegSize(blob.data(), 4096), c.expected);
        EXPECT_EQ(Texts(capture),
                  c.logged ? std::vector<std::string>{c.logged} : std::vector<std::string>{});
    }
    LogCapture capture;
    EXPECT_EQ(VxImageUtils::CalculateJpegSize(nullptr, 4096), 4096u);
    uint8_t tiny[7] = {0xFF, 0, 0, 0, 1, 0, 0};
    EXPECT_EQ(VxImageUtils::CalculateJpegSize(tiny, sizeof(tiny)), 7u);
    EXPECT_TRUE(capture.Lines().empty());
}

TEST(JpegBlobTrailer, WritesIdAndSizeIntoTheLastEightBytesOnly) {
    const uint32_t savedVerbose = VxCam::g_logInfo.verboseMask;
    std::vector<uint8_t> blob(4096, 0xAB);
    {
        LogCapture capture;
        VxImageUtils::SetJpegSize(blob.data(), 4096, 10000);
        EXPECT_TRUE(capture.Lines().empty());  // verbose lines are off by default
    }
    EXPECT_EQ(std::vector<uint8_t>(blob.end() - 8, blob.end()),
              (std::vector<uint8_t>{0xFF, 0, 0, 0, 0x10, 0x27, 0, 0}));
    EXPECT_EQ(std::count(blob.begin(), blob.end() - 8, 0xAB), 4088);
    EXPECT_EQ(VxImageUtils::CalculateJpegSize(blob.data(), 4096), 10000u);

    VxCam::g_logInfo.verboseMask |= VXCAM_GROUP_BIT_UTILS;
    {
        LogCapture capture;
        VxImageUtils::SetJpegSize(blob.data(), 4096, 123456);
        VxImageUtils::SetJpegSize(nullptr, 4096, 1);
        EXPECT_EQ(Texts(capture), std::vector<std::string>{"Update jpeg size(0) to (123456)"});
        ASSERT_EQ(capture.Lines().size(), 1u);
        EXPECT_EQ(capture.Lines()[0].priority, ANDROID_LOG_VERBOSE);
    }
    VxCam::g_logInfo.verboseMask = savedVerbose;
    EXPECT_EQ(VxImageUtils::CalculateJpegSize(blob.data(), 4096), 123456u);
}

// ---- Image dumps --------------------------------------------------------------------------------

class ImageDump : public ::testing::Test {
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

TEST_F(ImageDump, SubDirectoryIsCreatedAndAppendAddsToTheFile) {
    std::string image = "0123456789";
    VxImageUtils::DumpImage(image.data(), image.size(), "dir", "f.raw", false);
    EXPECT_EQ(vxcamtest::ReadFile(CameraPath("dir/f.raw")), image);
    VxImageUtils::DumpImage(image.data(), image.size(), "dir", "f.raw", true);
    EXPECT_EQ(vxcamtest::ReadFile(CameraPath("dir/f.raw")), image + image);
    VxImageUtils::DumpImage(image.data(), 4, "dir", "f.raw", false);  // rewrites
    EXPECT_EQ(vxcamtest::ReadFile(CameraPath("dir/f.raw")), "0123");

    VxImageUtils::DumpImage(nullptr, 10, "empty", "g.raw", false);
    EXPECT_TRUE(std::filesystem::is_directory(CameraPath("empty")));
    EXPECT_FALSE(std::filesystem::exists(CameraPath("empty/g.raw")));
}

TEST_F(ImageDump, WithoutSubDirectoryWritesIntoTheCameraDirectoryOnly) {
    std::string image = "abc";
    VxImageUtils::DumpImage(image.data(), image.size(), "top.raw", false);
    VxImageUtils::DumpImage(image.data(), image.size(), "top.raw", true);
    EXPECT_EQ(vxcamtest::ReadFile(CameraPath("top.raw")), "abcabc");

    LogCapture capture;
    VxImageUtils::DumpImage(image.data(), image.size(), "missing/x.raw", false);
    EXPECT_FALSE(std::filesystem::exists(CameraPath("missing")));
    VxImageUtils::DumpImage(image.data(), 0, "zero.raw", false);
    EXPECT_EQ(Texts(capture),
              (std::vector<std::string>{"Open /data/vendor/camera/missing/x.raw failed!",
                                        "Write failed, buffer size 0, rw 0"}));
}

}  // namespace
