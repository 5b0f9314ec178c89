// Image geometry, the JPEG blob trailer and image dumps, checked against what the HAL relies on:
// Android's HAL format numbers, the rules at their boundaries, the exact log lines and files.
#include "VxCamImageUtils.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "VxCamDebug.h"

namespace {

using VxCam::ImageFormat;
using VxCam::VxImageUtils;
using vxcamtest::LogCapture;
using Texts = std::vector<std::string>;

constexpr uint32_t kDefaultMaxJpegSize = 50331648;

ImageFormat F(uint32_t value) {
    return static_cast<ImageFormat>(value);
}

// The message texts written, without their frame; a line of another level, priority, group or
// source than `label`'s ("[ERROR   ][UTILS  ] VxCamImageUtils:line Function() ") is kept whole.
Texts TextsOf(const LogCapture& capture, const std::string& label = "[ERROR   ]",
              int priority = ANDROID_LOG_ERROR) {
    Texts texts;
    for (const vxcamtest::LogLine& line : capture.Lines()) {
        const bool framed = line.priority == priority &&
                            line.message.rfind(label + "[UTILS  ] VxCamImageUtils:", 0) == 0;
        texts.push_back(framed ? line.message.substr(line.message.find("() ") + 3)
                               : std::to_string(line.priority) + line.message);
    }
    return texts;
}

TEST(ImageFormats, EveryValueAgainstAndroidsHalFormatsAndTheCatalogue) {
    // HAL_PIXEL_FORMAT_* as Android publishes them.
    constexpr uint32_t kBlob = 0x21, kY8 = 0x20203859, kY16 = 0x20363159, kYcbcr420 = 0x23,
                       kYcbcr422I = 0x14, kRawOpaque = 0x24, kRaw10 = 0x25, kRaw12 = 0x26,
                       kRaw16 = 0x20, kP010 = 0x36, kYv12 = 0x32315659, kYcrcb420Sp = 0x11;
    // clang-format off
    const std::map<uint32_t, uint32_t> hal = {
        {0, kBlob}, {1, kY8}, {2, kY16}, {3, kYcbcr420}, {4, kYcbcr420}, {5, kYcbcr422I},
        {6, kBlob}, {8, kRawOpaque}, {9, kRaw10}, {10, kRaw16}, {22, kP010}, {26, kRaw12},
        {27, kRaw16}, {33, kY8}, {35, kYv12}, {36, kYcrcb420Sp}, {37, kBlob}, {38, kBlob}};
    const std::map<uint32_t, std::string> names = {
        {0, "jpg"}, {1, "Y8"}, {3, "YUV420NV12"}, {4, "YUV420NV21"}, {5, "YUV422NV16"},
        {6, "jpg"}, {9, "RawMIPI10"}, {10, "RawPlain16"}, {15, "YUV420NV12TP10"},
        {16, "YUV420NV21TP10"}, {17, "YUV422NV16TP10"}, {18, "PD10"}, {22, "P010"},
        {33, "dmap"}, {35, "yv12"}, {36, "YUV420SP"}, {37, "jpgr"}, {38, "depthjpeg"}};
    // clang-format on
    const std::set<uint32_t> threeLayers = {3, 4, 5, 22, 35, 36};
    const std::set<uint32_t> oneLayer = {0, 1, 2, 6, 8, 9, 10, 26, 33, 37, 38};  // not Raw16
    const std::set<uint32_t> planeAlign64 = {1, 3, 4, 5, 22, 34, 35, 36};
    const std::set<uint32_t> sliceAlign64 = {3, 4, 5, 22, 34, 35, 36};  // not Y8
    const std::set<uint32_t> align1 = {0, 6, 33, 37, 38};
    const std::set<uint32_t> sized = {0,  1,  3,  4,  5,  6,  9,  10, 15,
                                      16, 17, 18, 22, 33, 35, 36, 37, 38};
    // Formats with a stride or slice-height rule; every other value keeps the dimension.
    const std::set<uint32_t> strideRuled = {1, 3, 4, 9, 10, 15, 16, 17, 18, 22, 35, 36},
                             heightRuled = {1, 3, 4, 15, 16, 17, 18, 35, 36};

    // Every format value, a few past the catalogue, and the largest.
    for (uint64_t i = 0; i <= 46; ++i) {
        const uint32_t value = i < 46 ? static_cast<uint32_t>(i) : 0xFFFFFFFFu;
        SCOPED_TRACE("format " + std::to_string(value));
        const std::string number = std::to_string(static_cast<int>(value));
        const bool accepted = value < 39 && value != 20 && value != 21;
        const auto halFormat = hal.find(value);
        const auto name = names.find(value);
        LogCapture capture;
        EXPECT_EQ(VxImageUtils::ConvertGraphicFormat(F(value)),
                  halFormat != hal.end() ? halFormat->second : kRaw16);
        EXPECT_EQ(VxImageUtils::ImageFormatToString(F(value)),
                  name != names.end() ? name->second : "");
        EXPECT_EQ(VxImageUtils::ConvertFormat(value), accepted ? F(value) : VxCam::Max);
        EXPECT_EQ(VxImageUtils::GetLayerCount(F(value)), threeLayers.count(value) ? 3u : 1u);
        EXPECT_EQ(VxImageUtils::GetPlaneAlignment(F(value)), planeAlign64.count(value) ? 64u
                                                             : align1.count(value)     ? 1u
                                                                                       : 2u);
        EXPECT_EQ(VxImageUtils::GetSliceAlignment(F(value)), sliceAlign64.count(value) ? 64u
                                                             : align1.count(value)     ? 1u
                                                                                       : 2u);
        if (sized.count(value) == 0) {
            EXPECT_EQ(VxImageUtils::GetBufferSize(F(value), 640, 480, true), 0u);
        }
        if (strideRuled.count(value) == 0) {
            EXPECT_EQ(VxImageUtils::GetBufferStride(64, 4001, F(value)), 4001u);
        }
        if (heightRuled.count(value) == 0) {
            EXPECT_EQ(VxImageUtils::GetSliceHeight(64, 1081, F(value)), 1081u);
        }
        Texts errors;
        if (halFormat == hal.end()) errors.push_back("UnKnow image format " + number + " ");
        if (name == names.end()) errors.push_back("Invalid format " + number);
        if (!accepted) errors.push_back("Invalid format " + number);
        if (threeLayers.count(value) + oneLayer.count(value) == 0) {
            errors.push_back("UnKnow image format " + number + " ");
        }
        if (sized.count(value) == 0) errors.push_back("Invalid format " + number);
        EXPECT_EQ(TextsOf(capture), errors);
    }
}

struct GeometryCase {
    uint32_t alignment, size, format, expected;
};

TEST(ImageGeometry, StrideAndSliceHeightRulesAtTheirBoundaries) {
    using namespace VxCam;
    // clang-format off
    const GeometryCase strides[] = {
        // Caller's alignment: 0 counts as 2, odd as the next even value, 0xFFFFFFFF stays.
        {0, 100, YUV420NV12, 100}, {0, 101, YUV420NV12, 102}, {1, 101, YUV420NV21, 102},
        {63, 100, Y8, 128}, {64, 128, Y8, 128}, {64, 129, Y8, 192}, {3, 5, YV12, 8},
        {64, 0, YUV420SP, 0}, {0xFFFFFFFF, 100, YUV420SP, 0xFFFFFFFF},
        {64, 0xFFFFFFF0, YUV420NV12, 0}, {2, 0xFFFFFFFF, Y8, 0},  // wrap
        {0, 4000, RawMIPI10, 4000}, {0, 4001, RawMIPI10, 4016}, {0, 4016, RawMIPI10, 4016},
        {0, 0xFFFFFFF1, RawMIPI10, 0}, {64, 4000, RawPlain16, 8000}, {64, 0x80000001, RawPlain16, 2},
        {0, 1920, P010, 3840}, {0, 1921, P010, 4096}, {0, 1984, P010, 4096}, {0, 64, P010, 256},
        {0, 128, P010, 256}, {0, 129, P010, 512}, {0, 0, P010, 0},
        {0, 4000, YUV420NV12TP10, 5336}, {0, 4001, YUV420NV21TP10, 5336},
        {0, 4002, YUV422NV16TP10, 5336}, {0, 4003, YUV420NV12TP10, 5340}, {0, 1, YUV420NV12TP10, 4},
        {0, 4032, PD10, 16128}, {0, 4033, PD10, 16128}, {0, 4034, PD10, 16320}, {0, 48, PD10, 192},
        {0, 50, PD10, 384}, {0, 46, PD10, 192}, {0, 0, PD10, 0},
    };
    const GeometryCase sliceHeights[] = {
        {64, 3000, PD10, 1504}, {0, 2, PD10, 32}, {0, 128, PD10, 64}, {0, 130, PD10, 96},
        {64, 1081, YUV420NV21TP10, 1084}, {64, 1080, YUV420NV12TP10, 1080},
        {64, 1077, YUV422NV16TP10, 1080}, {0, 0xFFFFFFFD, YUV420NV12TP10, 0},
        {0, 1081, Y8, 1082}, {64, 1081, Y8, 1088}, {63, 1, YV12, 64}, {64, 1024, YUV420SP, 1024},
        {0xFFFFFFFF, 5, YUV420NV12, 0xFFFFFFFF}, {64, 0xFFFFFFC1, YUV420NV21, 0},
    };
    // clang-format on
    for (const GeometryCase& c : strides) {
        EXPECT_EQ(VxImageUtils::GetBufferStride(c.alignment, c.size, F(c.format)), c.expected)
                << "alignment " << c.alignment << " width " << c.size << " format " << c.format;
    }
    for (const GeometryCase& c : sliceHeights) {
        EXPECT_EQ(VxImageUtils::GetSliceHeight(c.alignment, c.size, F(c.format)), c.expected)
                << "alignment " << c.alignment << " height " << c.size << " format " << c.format;
    }
}

TEST(ImageBufferSize, RulesAndTheJpegBound) {
    using namespace VxCam;
    const struct {
        uint32_t format, width, height;
        uint64_t expected;
    } cases[] = {
            // clang-format off
        // JPEG: bounded by the maximum, and only Jpeg and Blob round up to 4096.
        {Jpeg, 1000, 1000, 1003520}, {Blob, 1000, 1000, 1003520}, {Jpgr, 1000, 1000, 1000000},
        {DepthJpeg, 1000, 1000, 1000000}, {Jpeg, 4096, 1, 4096}, {Jpeg, 4097, 1, 8192},
        {Blob, 1, 1, 4096}, {Jpeg, 0, 0, 0}, {Jpeg, 8000, 8000, kDefaultMaxJpegSize},
        {Jpgr, 8000, 8000, kDefaultMaxJpegSize},
        // 1.5 bytes a pixel, truncated, 4:2:2 included; width x height wraps at 32 bits.
        {YUV420NV12, 4000, 3000, 18000000}, {YUV420NV21, 3, 1, 4}, {YUV422NV16, 1, 1, 1},
        {YUV422NV16TP10, 2, 2, 6}, {P010, 1920, 1080, 3110400}, {YV12, 5, 1, 7},
        {YUV420SP, 4, 1, 6}, {YUV420NV12TP10, 65536, 65536, 0}, {YUV420NV12, 65537, 65536, 98304},
        // One byte a pixel, even for the 10- and 16-bit RAW layouts.
        {Y8, 4000, 3000, 12000000}, {RawMIPI10, 4000, 3000, 12000000},
        {RawPlain16, 4000, 3000, 12000000}, {PD10, 7, 3, 21}, {Dmap, 640, 480, 307200},
        {Y8, 65537, 65536, 65536},
            // clang-format on
    };
    for (const auto& c : cases) {
        for (bool flag : {false, true}) {
            LogCapture capture;
            EXPECT_EQ(VxImageUtils::GetBufferSize(F(c.format), c.width, c.height, flag), c.expected)
                    << "format " << c.format << " " << c.width << "x" << c.height;
            EXPECT_TRUE(capture.Lines().empty());
        }
    }
    VxImageUtils::SetMaxJpegSize(1000001);
    EXPECT_EQ(VxImageUtils::GetBufferSize(Jpeg, 2000, 2000, false), 1003520u);
    EXPECT_EQ(VxImageUtils::GetBufferSize(Jpgr, 2000, 2000, false), 1000001u);
    EXPECT_EQ(VxImageUtils::GetBufferSize(Jpgr, 1000, 1000, false), 1000000u);
    // The rounding is 32-bit like the rest of the geometry: within the last 4096 it wraps to 0.
    VxImageUtils::SetMaxJpegSize(0xFFFFFFFF);
    EXPECT_EQ(VxImageUtils::GetBufferSize(Blob, 0xFFFFF000, 1, false), 0xFFFFF000u);
    EXPECT_EQ(VxImageUtils::GetBufferSize(Blob, 0xFFFFF001, 1, false), 0u);
    EXPECT_EQ(VxImageUtils::GetBufferSize(Jpeg, 0xFFFFFFFF, 1, false), 0u);
    VxImageUtils::SetMaxJpegSize(kDefaultMaxJpegSize);
}

TEST(JpegBlobTrailer, ReadsTheSizeOnlyBehindAKnownBlobId) {
    const struct {
        std::vector<uint8_t> trailer;
        uint32_t expected;
        Texts logged;
    } cases[] = {
            {{0xFF, 0, 0, 0, 0x10, 0x27, 0, 0}, 10000, {}},
            {{0x0F, 0, 0, 0, 0x10, 0x27, 0, 0}, 10000, {}},
            {{0xFF, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}, 0xFFFFFFFF, {}},  // not checked
            {{0, 0, 0, 0, 0x10, 0x27, 0, 0}, 4096, {"Blob Id 0 miss match"}},
            {{0xFF, 0, 0, 1, 0x10, 0x27, 0, 0}, 4096, {"Blob Id 16777471 miss match"}},
            {{0xFF, 0xFF, 0xFF, 0xFF, 0x10, 0x27, 0, 0}, 4096, {"Blob Id -1 miss match"}},
    };
    for (const auto& c : cases) {
        std::vector<uint8_t> blob(4096, 0xAB);
        std::copy(c.trailer.begin(), c.trailer.end(), blob.end() - 8);
        LogCapture capture;
        EXPECT_EQ(VxImageUtils::CalculateJpegSize(blob.data(), 4096), c.expected);
        EXPECT_EQ(TextsOf(capture), c.logged);
    }
    LogCapture capture;
    EXPECT_EQ(VxImageUtils::CalculateJpegSize(nullptr, 4096), 4096u);
    uint8_t tiny[7] = {0xFF, 0, 0, 0, 1, 0, 0};
    EXPECT_EQ(VxImageUtils::CalculateJpegSize(tiny, sizeof(tiny)), 7u);
    VxImageUtils::SetJpegSize(tiny, sizeof(tiny), 2);  // no room for a trailer: untouched
    EXPECT_EQ(std::vector<uint8_t>(tiny, tiny + 7), (std::vector<uint8_t>{0xFF, 0, 0, 0, 1, 0, 0}));
    EXPECT_TRUE(capture.Lines().empty());
}

TEST(JpegBlobTrailer, WritesIdAndSizeIntoTheLastEightBytesOnly) {
    const uint32_t savedVerbose = VxCam::g_logInfo.verboseMask;
    std::vector<uint8_t> blob(4096, 0xAB);
    LogCapture capture;
    // Its verbose line needs the utils bit: every other group's is not enough.
    VxCam::g_logInfo.verboseMask = ~VXCAM_GROUP_BIT_UTILS;
    VxImageUtils::SetJpegSize(blob.data(), 4096, 10000);
    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_EQ(std::vector<uint8_t>(blob.begin(), blob.begin() + 4088),
              std::vector<uint8_t>(4088, 0xAB));
    EXPECT_EQ(std::vector<uint8_t>(blob.begin() + 4088, blob.end()),
              (std::vector<uint8_t>{0xFF, 0, 0, 0, 0x10, 0x27, 0, 0}));
    EXPECT_EQ(VxImageUtils::CalculateJpegSize(blob.data(), 4096), 10000u);

    VxCam::g_logInfo.verboseMask = VXCAM_GROUP_BIT_UTILS;
    VxImageUtils::SetJpegSize(blob.data(), 4096, 123456);
    VxImageUtils::SetJpegSize(nullptr, 4096, 1);
    VxCam::g_logInfo.verboseMask = savedVerbose;
    EXPECT_EQ(TextsOf(capture, "[VERBOSE ]", ANDROID_LOG_VERBOSE),
              Texts{"Update jpeg size(0) to (123456)"});
    EXPECT_EQ(VxImageUtils::CalculateJpegSize(blob.data(), 4096), 123456u);
}

// Under the test's private sysroot.
std::string CameraPath(const std::string& relative) {
    const char* sysroot = getenv("VXCAM_SYSROOT");
    return std::string(sysroot != nullptr ? sysroot : "") + "/data/vendor/camera/" + relative;
}

TEST(ImageDump, CreatesTheSubDirectoryWritesAndAppends) {
    std::filesystem::remove_all(CameraPath("dump"));
    std::filesystem::remove_all(CameraPath("empty"));
    std::string image = "0123456789";
    VxImageUtils::DumpImage(image.data(), image.size(), "dump", "f.raw", false);
    VxImageUtils::DumpImage(image.data(), image.size(), "dump", "f.raw", true);
    EXPECT_EQ(vxcamtest::ReadFile(CameraPath("dump/f.raw")), image + image);
    VxImageUtils::DumpImage(image.data(), 4, "dump", "f.raw", false);
    EXPECT_EQ(vxcamtest::ReadFile(CameraPath("dump/f.raw")), "0123");

    VxImageUtils::DumpImage(nullptr, 10, "empty", "g.raw", false);
    EXPECT_TRUE(std::filesystem::is_directory(CameraPath("empty")));
    EXPECT_FALSE(std::filesystem::exists(CameraPath("empty/g.raw")));

    // Without a sub-directory: straight into the camera directory, which nothing creates.
    VxImageUtils::DumpImage(image.data(), 3, "top.raw", false);
    VxImageUtils::DumpImage(image.data(), 3, "top.raw", true);
    EXPECT_EQ(vxcamtest::ReadFile(CameraPath("top.raw")), "012012");

    LogCapture capture;
    VxImageUtils::DumpImage(image.data(), image.size(), "missing/x.raw", false);
    EXPECT_FALSE(std::filesystem::exists(CameraPath("missing")));
    VxImageUtils::DumpImage(image.data(), 0, "zero.raw", false);
    // Only the last folder of a nested sub-directory is created.
    std::filesystem::remove_all(CameraPath("outer"));
    VxImageUtils::DumpImage(image.data(), 2, "outer/inner", "n.raw", false);
    EXPECT_FALSE(std::filesystem::exists(CameraPath("outer")));
    std::filesystem::create_directory(CameraPath("outer"));
    VxImageUtils::DumpImage(image.data(), 2, "outer/inner", "n.raw", false);
    EXPECT_EQ(vxcamtest::ReadFile(CameraPath("outer/inner/n.raw")), "01");
    EXPECT_EQ(TextsOf(capture), (Texts{"Open /data/vendor/camera/missing/x.raw failed!",
                                       "Write failed, buffer size 0, rw 0",
                                       "Open /data/vendor/camera/outer/inner/n.raw failed!"}));
    EXPECT_NE(capture.Messages()[0].find(" DumpImage() Open "), std::string::npos);
}

}  // namespace
