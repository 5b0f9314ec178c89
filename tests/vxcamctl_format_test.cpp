// vxcamctl format and jpeg as a user meets them: the report lines, the catalogue listing, the
// plain statement of what the library cannot answer, and the exit statuses.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TestSupport.h"

namespace {

using vxcamtest::ExpectTool;
using vxcamtest::ProcessResult;
using vxcamtest::TempDir;
using vxcamtest::ToolCase;

TEST(VxcamctlFormat, ReportsOneFormatByAnyOfItsNames) {
    const std::string report =
            "format         3 YUV420NV12\n"
            "ConvertFormat  accepted\n"
            "name           \"YUV420NV12\"\n"
            "HAL format     0x23 HAL_PIXEL_FORMAT_YCBCR_420_888\n"
            "layers         3\n"
            "plane align    64\n"
            "slice align    64\n"
            "stride         4032 pixels, 4032 bytes at 8 bits a pixel  (width 4000 rounded up to a "
            "multiple of 64)\n"
            "slice height   3008  (height 3000 rounded up to a multiple of 64)\n"
            "buffer size    18192384  (stride x slice height 4032 x 3008, 1.5 bytes a pixel)\n"
            "buffer size    18000000  (width x height 4000 x 3000, 1.5 bytes a pixel)\n";
    const std::string fromHal =
            "asked for      HAL_PIXEL_FORMAT_YCBCR_420_888 (0x23): a HAL takes the library's "
            "YUV420NV12 (3) for it\n"
            "               YUV420NV21 (4) reports this HAL format too\n";
    // A bare number is the library's own value; the line says so and how to mean Android's.
    const struct {
        std::string name;
        std::string asked;
    } names[] = {
            {"NV12", ""},
            {"0x3",
             "asked for      0x3, read as the library's own format value; for Android's "
             "HAL_PIXEL_FORMAT_RGB_888 (0x3) write --hal 0x3\n"},
            {"YCBCR_420_888", fromHal},
            {"--hal=0x23", fromHal},
    };
    for (const auto& n : names) {
        const ProcessResult result = vxcamtest::RunVxcamctl({"format", n.name, "4000x3000"}, "*:e");
        ASSERT_EQ(result.exitCode, 0) << n.name << result.err;
        EXPECT_EQ(result.out, n.asked + report) << n.name;
        // The report speaks for the library: its error lines stay out of the way.
        EXPECT_EQ(result.err.find("[UTILS  ]"), std::string::npos);
    }

    const ToolCase cases[] = {
            {{"format", "0x23"},
             0,
             {"for Android's HAL_PIXEL_FORMAT_YCBCR_420_888 (0x23) write --hal 0x23\n"
              "format         35 YV12\n"}},
            // Android's names win over the library's enumerators spelt alike.
            {{"format", "RAW16"},
             0,
             {"a HAL takes the library's RawPlain16 (10) for it\n",
              "for the library's own enumerator Raw16: vxcamctl format 27\n"}},
            {{"format", "--hal", "0x22"},
             1,
             {"HAL_PIXEL_FORMAT_IMPLEMENTATION_DEFINED (0x22): no library format reports this HAL "
              "format\n"}},
            {{"format", "Y16", "640x480", "--align", "63"},
             0,
             {"\nname           none: Y16 has no name string; the library returns \"\" and logs an "
              "error\n",
              "\nstride         640 pixels, 1280 bytes at 16 bits a pixel  (the width)\n",
              "\nbuffer size    none: Y16 has no size rule; the library returns 0 and logs an "
              "error\n"}},
            {{"format", "P010", "1920x1080"},
             0,
             {"\nstride         3840 bytes  (2 bytes a pixel, rounded up to a multiple of 256)\n"}},
            {{"format", "--all", "4000x3000"},
             0,
             {"\n22    P010            P010            yes  0x36 YCBCR_P010               3    64 "
              "   64     8192 B       3000     36864000     18000000\n",
              "\n38    DepthJpeg", "\n>=39  Max             -               no ",
              "\n0x23       YCBCR_420_888            YUV420NV12 (3); also reported by YUV420NV21 "
              "(4)\n"}},
            {{"format", "TP10"},
             2,
             {"'TP10' is more than one image format: YUV420NV12TP10, YUV420NV21TP10, "
              "YUV422NV16TP10"}},
            {{"format", "NV13"}, 2, {"'NV13' is no image format"}},
            {{"format", "NV12", "4000"}, 2, {"'4000' is not a size WIDTHxHEIGHT"}},
    };
    for (const ToolCase& c : cases) ExpectTool(c);
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
        const ProcessResult result = vxcamtest::RunVxcamctl({"jpeg", path}, "*:e");
        EXPECT_EQ(result.exitCode, c.exitCode);
        EXPECT_EQ(result.out, path + ": " + c.line + "\n");
    }
}

}  // namespace
