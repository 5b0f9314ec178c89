// vxcamctl as a user meets it: the override-file lint, help texts and errors.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace {

using vxcamtest::ProcessResult;
using vxcamtest::TempDir;

using vxcamtest::RunVxcamctl;

TEST(VxcamctlCheck, ReportsWhatTheLoaderWouldSkipOrMisread) {
    TempDir folder;
    const std::string longLine = "OverridePipeline=" + std::string(130, 'p');
    const std::string file = folder.Write("override.txt",
                                          "; a comment\n"                       // 1: fine
                                          "\n"                                  // 2: fine
                                          "LogInfoMsk=0x3\n"                    // 3
                                          "LogEnable\n"                         // 4
                                          "DumpInputInfo=2\n"                   // 5: not base 2
                                          "EnablePreInit=11\n"                  // 6: reads as 3
                                          "NumberOfThread=4x\n"                 // 7
                                          "LogDebugMask=0x1ffffffff\n"          // 8: beyond 32 bits
                                          "CameraPosition=1,2,3,4,5,6,7,8,9\n"  // 9
                                          "CameraPosition=1,two,3\n"            // 10: and set again
                                          "TeleZoomStart=fast\n"                // 11
                                          "BufferReleaseWaterLevel=9=6\n" +     // 12
                                                  longLine +
                                                  "\n"                      // 13
                                                  "Log Info Mask = 0x3f\n"  // 14: fine
                                                  "LogVerboseMask=\n");     // 15
    const ProcessResult result = RunVxcamctl({"settings", "--check", file});
    EXPECT_EQ(result.exitCode, 1) << result.out << result.err;
    const std::vector<std::string> expected = {
            file + ":3: unknown key 'LogInfoMsk' (nearest setting: 'LogInfoMask')",
            file + ":4: 'LogEnable' has no value",
            file + ":5: '2' for 'DumpInputInfo' is not a base-2 number: the library reads 0",
            file + ":6: '11' for 'EnablePreInit' reads as 3 in base 2, which is not 1",
            file + ":7: '4x' for 'NumberOfThread' is not wholly a base-10 number: the library "
                   "reads 4 and ignores 'x'",
            file + ":8: '0x1ffffffff' for 'LogDebugMask' does not fit 32 unsigned bits: the "
                   "library keeps 0xffffffff",
            file + ":9: CameraPosition lists 9 values: the library keeps the first 8",
            file + ":10: 'CameraPosition' is set again (first on line 9)",
            file + ":10: CameraPosition piece 'two' is not a number",
            file + ":11: 'fast' for 'TeleZoomStart' is not a number",
            file + ":12: the value of 'BufferReleaseWaterLevel' is '9': the text after the second "
                   "'=' ('6') is ignored",
            file + ":13: line is 147 characters long: the library reads at most 127 at once and "
                   "takes it as 2 separate lines",
            file + ":13: 'pppppppppppppppppppp' has no value",
            file + ":15: 'LogVerboseMask' has no value",
    };
    for (const std::string& finding : expected) {
        EXPECT_NE(result.out.find(finding), std::string::npos) << "missing: " << finding << "\n"
                                                               << result.out;
    }
    for (const char* clean : {":1:", ":2:", ":14:"}) {
        EXPECT_EQ(result.out.find(file + clean), std::string::npos) << clean << "\n" << result.out;
    }
    EXPECT_NE(result.out.find(file + ": 14 problems found"), std::string::npos) << result.out;
}

TEST(VxcamctlCheck, CleanFilePassesAndMissingFileIsAnError) {
    TempDir folder;
    const std::string file = folder.Write(
            "ok.txt", "LogInfoMask=0x3f\n;LogEnable=0\nTeleZoomStart=2.5\nCameraPosition=0,1\n");
    const ProcessResult clean = RunVxcamctl({"settings", "--check", file});
    EXPECT_EQ(clean.exitCode, 0) << clean.out;
    EXPECT_NE(clean.out.find("no problems found"), std::string::npos);

    const ProcessResult missing = RunVxcamctl({"settings", "--check", folder / "absent.txt"});
    EXPECT_EQ(missing.exitCode, 2);
    EXPECT_NE(missing.err.find("cannot open"), std::string::npos) << missing.err;
}

TEST(VxcamctlUsage, HelpAndErrors) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"--help"}, {"settings", "--help"}}) {
        const ProcessResult result = RunVxcamctl(arguments);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_NE(result.out.find("usage: vxcamctl"), std::string::npos) << result.out;
    }
    struct Case {
        std::vector<std::string> arguments;
        std::string message;
    };
    const Case cases[] = {
            {{}, "usage: vxcamctl"},
            {{"frobnicate"}, "unknown command 'frobnicate'"},
            {{"settings", "--bogus"}, "unexpected argument '--bogus'"},
            {{"settings", "--check"}, "--check needs a value"},
            {{"settings", "--sysroot", "/no/such/sysroot"}, "is not a directory"},
            {{"session", "--threads", "0"}, "--threads needs a number from 1 to 1024"},
            {{"session", "--library", "/no/such.so"}, "cannot load /no/such.so"},
    };
    for (const Case& c : cases) {
        const ProcessResult result = RunVxcamctl(c.arguments);
        EXPECT_EQ(result.exitCode, 2) << c.message;
        EXPECT_NE(result.err.find(c.message), std::string::npos) << result.err;
    }
}

TEST(VxcamctlSettings, ShowsTheDefaultBesideAnOverriddenValue) {
    TempDir sysroot;
    sysroot.Write("vendor/build.prop", "vendor.camera.vcf.LogInfoMask=0x3f\n");
    const ProcessResult result = RunVxcamctl({"settings", "--sysroot=" + sysroot.Path()});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_NE(result.out.find("(sysroot: " + sysroot.Path() + ")"), std::string::npos);
    EXPECT_NE(result.out.find("LogInfoMask                    Integer    0x3f  (default 0x23)\n"),
              std::string::npos)
            << result.out;
    EXPECT_NE(result.out.find("LogEnable                      Integer    1\n"), std::string::npos);
}

// A camera host's run through the entry table, with closes under way while threads log and a
// share of lines through the debug frame: every line is accounted for. Also on a kernel without
// membarrier, where the capture's lock takes its other way.
TEST(VxcamctlSession, AccountsForEveryLine) {
    for (bool membarrier : {true, false}) {
        SCOPED_TRACE(membarrier ? "with membarrier" : "without membarrier");
        TempDir sysroot;
        sysroot.MakeCameraRoot(true);
        std::vector<std::string> arguments = {"session",
                                              "--sysroot",
                                              sysroot.Path(),
                                              "--threads",
                                              "3",
                                              "--lines",
                                              "3000",
                                              "--sessions",
                                              "2",
                                              "--close-while-logging",
                                              "--logsystem-every",
                                              "3"};
        if (!membarrier) arguments.push_back("--no-membarrier");
        const ProcessResult result = RunVxcamctl(arguments);
        EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
        EXPECT_NE(result.out.find("result: no loss"), std::string::npos) << result.out;
        EXPECT_NE(result.out.find("total: logged 18000, landed "), std::string::npos) << result.out;
        EXPECT_EQ(result.out.find("no debug-frame lines"), std::string::npos) << result.out;
        EXPECT_NE(result.out.find("__Tid"), std::string::npos) << result.out;
        // "no loss" also means: as many lines dropped during the closes as the library reported.
        EXPECT_NE(result.out.find("lines the library reported as skipped during a close: "),
                  std::string::npos)
                << result.out;
    }
}

// --duration: sessions of threads that come and go, each session checked after its close and
// its files deleted, the resident memory printed second by second.
TEST(VxcamctlSession, SoakChecksEachSessionAndPrintsTheMemoryCurve) {
    TempDir sysroot;
    sysroot.MakeCameraRoot(true);
    const ProcessResult result =
            RunVxcamctl({"session", "--sysroot", sysroot.Path(), "--threads", "4", "--lines", "500",
                         "--duration", "3", "--close-while-logging"});
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    for (const char* text :
         {"soak: 3 s of camera sessions of 2 s, 4 thread slots, 500 lines per thread",
          "\nresident memory (VmRSS, MiB), one sample a second:\n     0 s  ", "\npool: ",
          "lines the library reported as skipped during a close: ", "\nresult: no loss\n"}) {
        EXPECT_NE(result.out.find(text), std::string::npos) << text << "\n" << result.out;
    }
    EXPECT_EQ(result.out.find("__Tid"), std::string::npos) << result.out;
    std::vector<std::string> left;  // session folders, emptied as they were checked, then removed
    for (const auto& entry : std::filesystem::directory_iterator(sysroot / "data/vendor/camera")) {
        left.push_back(entry.path().filename().string());
    }
    EXPECT_EQ(left, std::vector<std::string>{".keep"});
}

// --bench times the run and still accounts for every line; the files are not listed.
TEST(VxcamctlSession, BenchPrintsItsFigures) {
    TempDir sysroot;
    sysroot.MakeCameraRoot(true);
    const ProcessResult result =
            RunVxcamctl({"session", "--sysroot", sysroot.Path(), "--threads", "2", "--lines",
                         "30000", "--sessions", "1", "--bench"});
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    for (const char* figure :
         {"capture: ", " ns of CPU per line, ", " lines/s over all threads\n", "flush: ", " MB/s (",
          "memory: idle ", "buckets in flight at most ", "pool of 25 buckets",
          "memory follows use: peak - idle = ", "result: no loss\n"}) {
        EXPECT_NE(result.out.find(figure), std::string::npos) << figure << "\n" << result.out;
    }
    EXPECT_EQ(result.out.find("__Tid"), std::string::npos) << result.out;
}

TEST(VxcamctlSession, ReportsLostLines) {
    TempDir sysroot;
    sysroot.MakeCameraRoot();
    const ProcessResult result =
            RunVxcamctl({"session", "--sysroot", sysroot.Path(), "--library", LOSSY_ENTRY_LIBRARY,
                         "--threads", "2", "--lines", "500", "--sessions", "1"});
    EXPECT_EQ(result.exitCode, 1) << result.out << result.err;
    EXPECT_NE(result.out.find("landed 990, dropped during a close 0 (accepted), lost 10"),
              std::string::npos)
            << result.out;
    EXPECT_NE(result.out.find("result: LINES LOST OR DAMAGED"), std::string::npos);
}

// Every caught signal, raised for real on a logging thread of a child: the tool checks the
// artefacts itself and says what is missing. The sanitizers' own fault handlers are kept out, so
// the child chains to the crash reporter stand-in as a device process chains to its own. The rows
// share one camera folder, as a device's crashes do: a crash before the session's first flush
// appends its dump to the relative name the one before it wrote.
TEST(VxcamctlCrash, EverySignalLeavesItsArtefacts) {
    const char* asan = getenv("ASAN_OPTIONS");
    const std::string asanOptions = std::string(asan != nullptr ? asan : "") +
                                    ":handle_segv=0:handle_sigbus=0:handle_sigfpe=0";
#if defined(__x86_64__)
    const std::string fpeCode = "signal code: 1 (FPE_INTDIV), from the crash header";
#else
    const std::string fpeCode =
            "no fault was taken: this processor does not trap an integer "
            "division by zero; the child sent the signal with tgkill instead";
#endif
    TempDir sysroot;
    sysroot.MakeCameraRoot();
    const std::string relativeDump = sysroot / "data/vendor/camera/_Session1_Crash_Dump.log";
    struct Case {
        std::vector<std::string> arguments;
        std::vector<std::string> lines;
    };
    const Case cases[] = {
            {{"--signal", "SEGV"}, {"child ended by SIGSEGV", "900 of 900 lines"}},
            {{"--signal=ABRT"}, {"child ended by SIGABRT", "signal code: -6 (SI_TKILL)"}},
            {{"--signal", "BUS"}, {"child ended by SIGBUS", "900 of 900 lines"}},
            {{"--signal", "FPE"}, {"child ended by SIGFPE", "900 of 900 lines", fpeCode}},
            {{"--signal", "ILL"}, {"child ended by SIGILL", "900 of 900 lines"}},
            {{"--signal", "TRAP"}, {"child ended by SIGTRAP", "900 of 900 lines"}},
            {{"--signal", "SYS"}, {"child ended by SIGSYS", "900 of 900 lines"}},
            {{"--signal", "35"}, {"child exited with status 0", "signal 35 flushes nothing"}},
            {{"--threads=1"}, {"crash dump: " + relativeDump + "\n", "outside the session folder"}},
            {{"--threads", "1"}, {"appended to the dump of an earlier crash", "300 of 300 lines"}},
    };
    for (const Case& c : cases) {
        std::vector<std::string> arguments = {
                vxcamtest::Vxcamctl(), "crash",       "--threads", "3", "--lines", "300",
                "--sysroot",           sysroot.Path()};
        arguments.insert(arguments.end(), c.arguments.begin(), c.arguments.end());
        SCOPED_TRACE(c.arguments.back());
        const ProcessResult result = vxcamtest::RunProcess(
                arguments, {{"ANDROID_LOG_TAGS", "*:s"}, {"ASAN_OPTIONS", asanOptions}});
        EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
        EXPECT_NE(result.out.find("all expected artefacts are there"), std::string::npos);
        for (const std::string& line : c.lines) {
            EXPECT_NE(result.out.find(line), std::string::npos) << line << "\n" << result.out;
        }
    }
}

}  // namespace
