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
    return vxcamtest::RunVxcamctl(arguments, "*:e");
}

TEST(VxcamctlFormat, ReportsOneFormatByAnyOfItsNames) {
    for (const char* name : {"NV12", "yuv420nv12", "0x3"}) {
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
                  "buffer size    18000000  (width x height 4000 x 3000, 1.5 bytes a pixel)\n");
        // The report speaks for the library: its error lines stay out of the way.
        EXPECT_EQ(result.err.find("[UTILS  ]"), std::string::npos);
    }
    const ProcessResult y16 = RunVxcamctl({"format", "Y16", "640x480", "--align", "63"});
    EXPECT_NE(y16.out.find("\nname           none: Y16 has no name string; the library returns "
                           "\"\" and logs an error\n"),
              std::string::npos);
    EXPECT_NE(y16.out.find("\nbuffer size    none: Y16 has no size rule; the library returns 0 "
                           "and logs an error\n"),
              std::string::npos);
    const std::string all = RunVxcamctl({"format", "--all", "4000x3000"}).out;
    EXPECT_NE(all.find("\n22    P010            P010            yes  0x36 YCBCR_P010          "
                       "     3    64    64       8192       3000     36864000     18000000\n"),
              std::string::npos);
    EXPECT_NE(all.find("\n38    DepthJpeg"), std::string::npos);
    EXPECT_NE(all.find("\n>=39  Max             -               no "), std::string::npos);
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
    };
    for (const auto& c : cases) {
        const ProcessResult result = RunVxcamctl(c.arguments);
        EXPECT_EQ(result.exitCode, 2) << c.error;
        EXPECT_NE(result.err.find(c.error), std::string::npos) << result.err;
    }
}

TEST(VxcamctlJpeg, ReadsTheBlobTrailer) {
    TempDir folder;
    const std::string body = "\xFF\xD8" + std::string(4084, '\xAB') + "\xFF\xD9";  // SOI ... EOI
    const struct {
        std::string content;
        int exitCode;
        const char* line;
    } cases[] = {
            {body + std::string("\x0F\0\0\0\xF8\x0F\0\0", 8), 0,
             "JPEG size 4088 bytes (blob id 15) in a blob buffer of 4096 bytes"},
            {body + std::string("\0\0\0\0\x10\x27\0\0", 8), 1,
             "blob id 0 is neither 15 nor 255, so there is no trailer: the library takes the "
             "whole buffer, 4096 bytes, as the JPEG size"},
            {body + std::string("\xFF\0\0\0\xF9\x0F\0\0", 8), 1,
             "the trailer (blob id 255) claims 4089 JPEG bytes, but the buffer holds only 4088 "
             "before it; the library returns 4089 unchecked"},
            {"\xFF\xE0" + body.substr(2) + std::string("\x0F\0\0\0\xF8\x0F\0\0", 8), 1,
             "the JPEG does not start with SOI (FF D8) but with FF E0"},
            {body + std::string("\x0F\0\0\0\xF7\x0F\0\0", 8), 1,
             "the JPEG's 4087 bytes do not end with EOI (FF D9) but with AB FF"},
    };
    for (const auto& c : cases) {
        const std::string path = folder.Write("capture.blob", c.content);
        const ProcessResult result = RunVxcamctl({"jpeg", path});
        EXPECT_EQ(result.exitCode, c.exitCode);
        EXPECT_EQ(result.out, path + ": " + c.line + "\n");
    }
    EXPECT_EQ(RunVxcamctl({"jpeg", folder / "missing"}).exitCode, 2);
}

}  // namespace
