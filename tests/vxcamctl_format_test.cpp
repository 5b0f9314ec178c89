// vxcamctl format and jpeg as a user meets them: the report lines, the catalogue listing, the
// plain statement of what the library cannot answer, and the exit statuses.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TestSupport.h"

namespace {

using vxcamtest::ProcessResult;
using vxcamtest::TempDir;

ProcessResult RunVxcamctl(const std::vector<std::string>& arguments) {
    std::vector<std::string> argv = {vxcamtest::Vxcamctl()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return vxcamtest::RunProcess(argv, {{"ANDROID_LOG_TAGS", "*:e"}});
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        lines.push_back(text.substr(start, end - start));
    }
    return lines;
}

bool HasLine(const std::string& text, const std::string& line) {
    for (const std::string& candidate : Lines(text)) {
        if (candidate == line) return true;
    }
    return false;
}

TEST(VxcamctlFormat, ReportsOneFormatByAnyOfItsNames) {
    for (const char* name : {"NV12", "yuv420nv12", "3", "0x3"}) {
        const ProcessResult result = RunVxcamctl({"format", name, "4000x3000"});
        ASSERT_EQ(result.exitCode, 0) << name << result.err;
        EXPECT_EQ(result.out,
                  "format         3 YUV420NV12\n"
                  "ConvertFormat  accepted\n"
                  "name           \"YUV420NV12\"\n"
                  "HAL format     0x23 HAL_PIXEL_FORMAT_YCBCR_420_888\n"
                  "layers         3\n"
                  "plane align    64\n"
                  "slice align    64\n"
                  "stride         4032  (width 4000 rounded up to a multiple of 64)\n"
                  "slice height   3008  (height 3000 rounded up to a multiple of 64)\n"
                  "buffer size    18192384  (stride x slice height 4032 x 3008, 1.5 bytes a "
                  "pixel)\n"
                  "buffer size    18000000  (width x height 4000 x 3000, 1.5 bytes a pixel)\n")
                << name;
        // The report speaks for the library: its error lines stay out of the way.
        EXPECT_EQ(result.err.find("[ERROR   ][UTILS  ]"), std::string::npos);
    }
    const ProcessResult aligned = RunVxcamctl({"format", "yv12", "100x1", "--align", "63"});
    EXPECT_TRUE(HasLine(aligned.out,
                        "stride         128  (width 100 rounded up to a multiple of "
                        "64 (alignment 63))"))
            << aligned.out;
}

TEST(VxcamctlFormat, SaysWhatTheLibraryCannotAnswer) {
    const ProcessResult y16 = RunVxcamctl({"format", "Y16", "640x480"});
    EXPECT_EQ(y16.exitCode, 0);
    EXPECT_TRUE(HasLine(y16.out,
                        "name           none: Y16 has no name string; the library "
                        "returns \"\" and logs an error"));
    EXPECT_TRUE(HasLine(y16.out, "HAL format     0x20363159 HAL_PIXEL_FORMAT_Y16"));
    EXPECT_TRUE(HasLine(y16.out,
                        "buffer size    none: Y16 has no size rule; the library returns "
                        "0 and logs an error"));
    const ProcessResult rejected = RunVxcamctl({"format", "20"});
    EXPECT_TRUE(HasLine(rejected.out,
                        "ConvertFormat  rejected: the library returns 39 (Max) and "
                        "logs an error"));
    EXPECT_TRUE(HasLine(rejected.out,
                        "HAL format     none: Format20 has no HAL format; the "
                        "library returns 0x20 (HAL_PIXEL_FORMAT_RAW16) and logs an "
                        "error"));
    const ProcessResult raw16 = RunVxcamctl({"format", "raw16"});
    EXPECT_TRUE(HasLine(raw16.out,
                        "layers         none: Raw16 has no layer count; the library "
                        "returns 1 and logs an error"));
}

TEST(VxcamctlFormat, AllListsEveryFormatValue) {
    const ProcessResult result = RunVxcamctl({"format", "--all", "4000x3000"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const std::vector<std::string> lines = Lines(result.out);
    ASSERT_GE(lines.size(), 42u);
    for (unsigned value = 0; value <= 38; ++value) {
        std::string label = std::to_string(value);
        label.resize(6, ' ');
        EXPECT_EQ(lines[2 + value].substr(0, 6), label) << lines[2 + value];
    }
    EXPECT_EQ(lines[2 + 39].substr(0, 6), ">=39  ");
    // P010: 8192-byte rows of 3000 lines; sized by width x height at 1.5 bytes a pixel.
    EXPECT_EQ(lines[2 + 22],
              "22    P010            P010            yes  0x36 YCBCR_P010               3    64  "
              "  64       8192       3000     36864000     18000000");
    EXPECT_EQ(lines[2 + 20].substr(0, 42), "20    Format20        -               no  ");
}

TEST(VxcamctlFormat, RejectsUnknownNamesAndSizes) {
    const struct {
        std::vector<std::string> arguments;
        const char* error;
    } cases[] = {
            {{"format", "TP10"},
             "'TP10' is more than one image format: YUV420NV12TP10, "
             "YUV420NV21TP10, YUV422NV16TP10"},
            {{"format", "NV13"}, "'NV13' is no image format"},
            {{"format", "NV12", "4000"}, "'4000' is not a size WIDTHxHEIGHT"},
            {{"format", "NV12", "4000x3000", "--align", "-1"}, "--align needs a 32-bit number"},
            {{"format"}, "usage: vxcamctl format"},
    };
    for (const auto& c : cases) {
        const ProcessResult result = RunVxcamctl(c.arguments);
        EXPECT_EQ(result.exitCode, 2) << c.error;
        EXPECT_NE(result.err.find(c.error), std::string::npos) << result.err;
    }
}

TEST(VxcamctlJpeg, ReadsTheBlobTrailer) {
    TempDir folder;
    const std::string body(4088, '\xAB');
    const struct {
        const char* name;
        std::string content;
        int exitCode;
        const char* line;
    } cases[] = {
            {"good.blob", body + std::string("\xFF\0\0\0\xA0\x0F\0\0", 8), 0,
             "JPEG size 4000 bytes (blob id 255) in a blob buffer of 4096 bytes"},
            {"legacy.blob", body + std::string("\x0F\0\0\0\xF8\x0F\0\0", 8), 0,
             "JPEG size 4088 bytes (blob id 15) in a blob buffer of 4096 bytes"},
            {"noid.blob", body + std::string("\0\0\0\0\x10\x27\0\0", 8), 1,
             "blob id 0 is neither 15 nor 255, so there is no trailer: the library takes the "
             "whole buffer, 4096 bytes, as the JPEG size"},
            {"long.blob", body + std::string("\xFF\0\0\0\xF9\x0F\0\0", 8), 1,
             "the trailer (blob id 255) claims 4089 JPEG bytes, but the buffer holds only 4088 "
             "before it; the library returns 4089 unchecked"},
            {"tiny.blob", std::string("\xFF\0\0\0\x01\0\0", 7), 1,
             "7 bytes, too small for the 8-byte blob trailer: no JPEG size"},
    };
    for (const auto& c : cases) {
        const std::string path = folder.Write(c.name, c.content);
        const ProcessResult result = RunVxcamctl({"jpeg", path});
        EXPECT_EQ(result.exitCode, c.exitCode) << c.name;
        EXPECT_EQ(result.out, path + ": " + c.line + "\n");
    }
    EXPECT_EQ(RunVxcamctl({"jpeg", folder / "missing"}).exitCode, 2);
}

}  // namespace
