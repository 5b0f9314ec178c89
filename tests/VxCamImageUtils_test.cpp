// Image geometry, the JPEG blob trailer and image dumps, checked against what the HAL relies on:
// Android's HAL format numbers, the rules at their boundaries, the exact log lines and files.
#include "VxCamImageUtils.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

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
    constexpr uint32_t kBlob = 0x21, kY8 = 0x20203859, kYcbcr420 = 0x23, kRaw16 = 0x20;
    // clang-format off
    const std::map<uint32_t, uint32_t> hal = {
        {0, kBlob}, {1, kY8}, {2, 0x20363159}, {3, kYcbcr420}, {4, kYcbcr420}, {5, 0x14},
        {6, kBlob}, {8, 0x24}, {9, 0x25}, {10, kRaw16}, {22, 0x36}, {26, 0x26},
        {27, kRaw16}, {33, kY8}, {35, 0x32315659}, {36, 0x11}, {37, kBlob}, {38, kBlob}};
    const std::map<uint32_t, std::string> names = {
        {0, "jpg"}, {1, "Y8"}, {3, "YUV420NV12"}, {4, "YUV420NV21"}, {5, "YUV422NV16"},
        {6, "jpg"}, {9, "RawMIPI10"}, {10, "RawPlain16"}, {15, "YUV420NV12TP10"},
        {16, "YUV420NV21TP10"}, {17, "YUV422NV16TP10"}, {18, "PD10"}, {22, "P010"},
        {33, "dmap"}, {35, "yv12"}, {36, "YUV420SP"}, {37, "jpgr"}, {38, "depthjpeg"}};
    // clang-format on
    const std::set<uint32_t> threeLayers = {3, 4, 5, 22, 35, 36};
    const std::set<uint32_t> planeAlign64 = {1, 3, 4, 5, 22, 34, 35, 36};
    const std::set<uint32_t> sliceAlign64 = {3, 4, 5, 22, 34, 35, 36};  // not Y8
    const std::set<uint32_t> align1 = {0, 6, 33, 37, 38};
    // Every format value, a few past the catalogue, and the largest.
    for (uint64_t i = 0; i <= 42; ++i) {
        const uint32_t value = i < 42 ? static_cast<uint32_t>(i) : 0xFFFFFFFFu;
        SCOPED_TRACE("format " + std::to_string(value));
        const auto halFormat = hal.find(value);
        const auto name = names.find(value);
        EXPECT_EQ(VxImageUtils::ConvertGraphicFormat(F(value)),
                  halFormat != hal.end() ? halFormat->second : kRaw16);
        EXPECT_EQ(VxImageUtils::ImageFormatToString(F(value)),
                  name != names.end() ? name->second : "");
        EXPECT_EQ(VxImageUtils::ConvertFormat(value),
                  value < 39 && value != 20 && value != 21 ? F(value) : VxCam::Max);
        EXPECT_EQ(VxImageUtils::GetLayerCount(F(value)), threeLayers.count(value) ? 3u : 1u);
        const auto alignment = [&](bool is64) {
            return is64 ? 64u : align1.count(value) ? 1u : 2u;
        };
        EXPECT_EQ(VxImageUtils::GetPlaneAlignment(F(value)), alignment(planeAlign64.count(value)));
        EXPECT_EQ(VxImageUtils::GetSliceAlignment(F(value)), alignment(sliceAlign64.count(value)));
    }
    // What each look-up says of a value it does not know.
    LogCapture capture;
    VxImageUtils::ConvertGraphicFormat(F(20));
    VxImageUtils::ImageFormatToString(F(20));
    VxImageUtils::ConvertFormat(20);
    VxImageUtils::GetLayerCount(F(20));
    EXPECT_EQ(VxImageUtils::GetBufferSize(F(20), 640, 480, true), 0u);
    EXPECT_EQ(TextsOf(capture),
              (Texts{"UnKnow image format 20 ", "Invalid format 20", "Invalid format 20",
                     "UnKnow image format 20 ", "Invalid format 20"}));
}

struct GeometryCase {
    uint32_t alignment, size, format, expected;
};

TEST(ImageGeometry, StrideAndSliceHeightRulesAtTheirBoundaries) {
    using namespace VxCam;
    // clang-format off
    const GeometryCase strides[] = {
        // Caller's alignment: 0 counts as 2, odd as the next even value, 0xFFFFFFFF stays.
        {0, 101, YUV420NV12, 102}, {1, 101, YUV420NV21, 102}, {63, 100, Y8, 128},
        {64, 128, Y8, 128}, {3, 5, YV12, 8}, {0xFFFFFFFF, 100, YUV420SP, 0xFFFFFFFF},
        {64, 0xFFFFFFF0, YUV420NV12, 0},  // wraps
        {64, 4001, Dmap, 4001}, {64, 4001, Y16, 4001},  // the width
        {0, 4000, RawMIPI10, 4000}, {0, 4001, RawMIPI10, 4016}, {64, 4000, RawPlain16, 8000},
        {0, 1920, P010, 3840}, {0, 1921, P010, 4096}, {0, 64, P010, 256}, {0, 129, P010, 512},
        {0, 4000, YUV420NV12TP10, 5336}, {0, 4002, YUV422NV16TP10, 5336},
        {0, 4003, YUV420NV12TP10, 5340},
        {0, 4032, PD10, 16128}, {0, 4034, PD10, 16320}, {0, 50, PD10, 384}, {0, 46, PD10, 192},
    };
    const GeometryCase sliceHeights[] = {
        {64, 3000, PD10, 1504}, {0, 2, PD10, 32}, {0, 130, PD10, 96},
        {64, 1081, YUV420NV21TP10, 1084}, {64, 1080, YUV420NV12TP10, 1080},
        {0, 1081, Y8, 1082}, {63, 1, YV12, 64}, {0xFFFFFFFF, 5, YUV420NV12, 0xFFFFFFFF},
        {64, 0xFFFFFFC1, YUV420NV21, 0}, {64, 1081, P010, 1081},
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
        {Jpeg, 1000, 1000, 1003520}, {Blob, 1, 1, 4096}, {Jpgr, 1000, 1000, 1000000},
        {DepthJpeg, 1000, 1000, 1000000}, {Jpeg, 4096, 1, 4096}, {Jpeg, 4097, 1, 8192},
        {Jpeg, 8000, 8000, kDefaultMaxJpegSize}, {Jpgr, 8000, 8000, kDefaultMaxJpegSize},
        // 1.5 bytes a pixel, truncated, 4:2:2 included; width x height wraps at 32 bits.
        {YUV420NV12, 4000, 3000, 18000000}, {YUV420NV21, 3, 1, 4}, {YUV422NV16TP10, 2, 2, 6},
        {P010, 1920, 1080, 3110400}, {YUV420NV12, 65537, 65536, 98304},
        // One byte a pixel, even for the 10- and 16-bit RAW layouts.
        {RawMIPI10, 4000, 3000, 12000000}, {RawPlain16, 4000, 3000, 12000000}, {PD10, 7, 3, 21},
        {Dmap, 640, 480, 307200},
            // clang-format on
    };
    for (const auto& c : cases) {
        EXPECT_EQ(VxImageUtils::GetBufferSize(F(c.format), c.width, c.height, true), c.expected)
                << "format " << c.format << " " << c.width << "x" << c.height;
    }
    VxImageUtils::SetMaxJpegSize(1000001);
    EXPECT_EQ(VxImageUtils::GetBufferSize(Jpeg, 2000, 2000, false), 1003520u);
    EXPECT_EQ(VxImageUtils::GetBufferSize(Jpgr, 2000, 2000, false), 1000001u);
    // The rounding is 32-bit too: within the last 4096 before 4 GiB it wraps to 0.
    VxImageUtils::SetMaxJpegSize(0xFFFFFFFFu);
    EXPECT_EQ(VxImageUtils::GetBufferSize(Blob, 0xFFFFF000, 1, false), 0xFFFFF000u);
    EXPECT_EQ(VxImageUtils::GetBufferSize(Blob, 0xFFFFF001, 1, false), 0u);
    VxImageUtils::SetMaxJpegSize(kDefaultMaxJpegSize);
}

TEST(JpegBlobTrailer, IdAndSizeInTheLastEightBytesOnly) {
    const uint32_t savedVerbose = VxCam::g_logInfo.verboseMask;
    std::vector<uint8_t> blob(4096, 0xAB);
    LogCapture capture;
    // Its verbose line needs the utils bit: every other group's is not enough.
    VxCam::g_logInfo.verboseMask = ~VXCAM_GROUP_BIT_UTILS;
    VxImageUtils::SetJpegSize(blob.data(), 4096, 10000);
    EXPECT_EQ(std::string(blob.begin(), blob.end()),
              std::string(4088, '\xAB') + std::string("\xFF\0\0\0\x10\x27\0\0", 8));
    // Behind the legacy id too; behind any other the whole buffer is the JPEG.
    for (const auto& [id, size] : {std::pair{0xFFu, 10000u}, {0x0Fu, 10000u}, {~0u, 4096u}}) {
        memcpy(&blob[4088], &id, sizeof(id));
        EXPECT_EQ(VxImageUtils::CalculateJpegSize(blob.data(), 4096), size) << id;
    }
    EXPECT_EQ(VxImageUtils::CalculateJpegSize(nullptr, 4096), 4096u);
    uint8_t tiny[7] = {0xFF, 0, 0, 0, 1, 0, 0};  // no room for a trailer
    EXPECT_EQ(VxImageUtils::CalculateJpegSize(tiny, sizeof(tiny)), 7u);
    EXPECT_EQ(TextsOf(capture), Texts{"Blob Id -1 miss match"});

    capture.Clear();
    VxCam::g_logInfo.verboseMask = VXCAM_GROUP_BIT_UTILS;
    VxImageUtils::SetJpegSize(blob.data(), 4096, 123456);
    VxImageUtils::SetJpegSize(nullptr, 4096, 1);
    VxCam::g_logInfo.verboseMask = savedVerbose;
    EXPECT_EQ(TextsOf(capture, "[VERBOSE ]", ANDROID_LOG_VERBOSE),
              Texts{"Update jpeg size(0) to (123456)"});
    EXPECT_EQ(VxImageUtils::CalculateJpegSize(blob.data(), 4096), 123456u);
}

TEST(ImageDump, CreatesTheSubDirectoryWritesAndAppends) {
    const char* sysroot = getenv("VXCAM_SYSROOT");
    const std::string camera =
            std::string(sysroot != nullptr ? sysroot : "") + "/data/vendor/camera/";
    for (const char* folder : {"dump", "outer"}) std::filesystem::remove_all(camera + folder);
    std::string image = "0123456789";
    VxImageUtils::DumpImage(image.data(), image.size(), "dump", "f.raw", false);
    VxImageUtils::DumpImage(image.data(), image.size(), "dump", "f.raw", true);
    EXPECT_EQ(vxcamtest::ReadFile(camera + "dump/f.raw"), image + image);
    VxImageUtils::DumpImage(image.data(), 4, "dump", "f.raw", false);
    EXPECT_EQ(vxcamtest::ReadFile(camera + "dump/f.raw"), "0123");
    // Without a sub-directory: straight into the camera directory, which nothing creates.
    VxImageUtils::DumpImage(image.data(), 3, "top.raw", false);
    VxImageUtils::DumpImage(image.data(), 3, "top.raw", true);
    EXPECT_EQ(vxcamtest::ReadFile(camera + "top.raw"), "012012");

    LogCapture capture;
    VxImageUtils::DumpImage(image.data(), image.size(), "missing/x.raw", false);
    VxImageUtils::DumpImage(image.data(), 0, "zero.raw", false);
    // Only the last folder of a nested sub-directory is created.
    VxImageUtils::DumpImage(image.data(), 2, "outer/inner", "n.raw", false);
    EXPECT_FALSE(std::filesystem::exists(camera + "outer"));
    EXPECT_EQ(TextsOf(capture), (Texts{"Open /data/vendor/camera/missing/x.raw failed!",
                                       "Write failed, buffer size 0, rw 0",
                                       "Open /data/vendor/camera/outer/inner/n.raw failed!"}));
    EXPECT_NE(capture.Messages()[0].find(" DumpImage() Open "), std::string::npos);
}

}  // namespace
