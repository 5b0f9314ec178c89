// vxcamctl as a user meets it: the override-file lint, help texts and errors.
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <filesystem>
#include <iostream>
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

TEST(VxcamctlCheck, CleanFilePassesAndUnreadablePathsAreErrors) {
    TempDir folder;
    const std::string file = folder.Write(
            "ok.txt", "LogInfoMask=0x3f\n;LogEnable=0\nTeleZoomStart=2.5\nCameraPosition=0,1\n");
    const ProcessResult clean = RunVxcamctl({"settings", "--check=" + file});
    EXPECT_EQ(clean.exitCode, 0) << clean.out;
    EXPECT_NE(clean.out.find("no problems found"), std::string::npos);

    for (const std::string& path : {folder / "absent.txt", folder.Path()}) {
        const ProcessResult result = RunVxcamctl({"settings", "--check", path});
        EXPECT_EQ(result.exitCode, 2) << path;
        EXPECT_NE(result.err.find("cannot read '" + path + "': "), std::string::npos) << result.err;
        EXPECT_EQ(result.out, "");
    }
}

TEST(VxcamctlUsage, HelpAndErrors) {
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{"--help"},
                                                      {"settings", "--help"},
                                                      {"--sysroot=/", "-v", "jpeg", "-h"}}) {
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
            {{"--frob", "settings"}, "vxcamctl: unknown option '--frob'"},
            {{"--sysroot"}, "vxcamctl: --sysroot needs a value"},
            {{"settings", "--bogus"}, "vxcamctl settings: unknown option '--bogus'"},
            {{"settings", "--check"}, "--check needs a value"},
            {{"settings", "--help=yes"}, "--help takes no value"},
            {{"settings", "--sysroot", "/no/such/sysroot"},
             "cannot use sysroot '/no/such/sysroot': No such file or directory"},
            {{"jpeg", "/"}, "vxcamctl jpeg: cannot read '/': Is a directory"},
            {{"jpeg", "a", "b"}, "unexpected argument 'b': jpeg takes one FILE"},
            {{"zlib", "crc32", "/", "-o"}, "vxcamctl zlib: -o needs a value"},
            {{"session", "--threads", "0"}, "--threads needs a number from 1 to 1024"},
            {{"session", "--library", "/no/such.so"}, "cannot load /no/such.so"},
            {{"sysroot", "init"}, "DIR is needed"},
            {{"sysroot", "init", "--force", "dir"}, "vxcamctl sysroot: unknown option '--force'"},
            {{"format", "NV12", "--ali"}, "vxcamctl format: --align needs a value"},
            {{"crash", "--sys=/"}, "vxcamctl crash: write '--sys' as --sysroot in full"},
    };
    for (const Case& c : cases) {
        const ProcessResult result = RunVxcamctl(c.arguments);
        EXPECT_EQ(result.exitCode, 2) << c.message;
        EXPECT_NE(result.err.find(c.message), std::string::npos) << result.err;
    }

    // What the library logs while it loads: by default only what is wrong, and not the missing
    // override file that is the rule on a host; all of it with -v or a filter of the user's.
    TempDir sysroot;
    sysroot.Write("vendor/etc/camera/vxcamoverridesettings.txt", "CameraPosition=1,x\n");
    const std::string unset = "\x01";
    const struct {
        std::vector<std::string> arguments;
        std::string logTags;
        const char* shown;
        const char* hidden;
    } logs[] = {
            {{"--help"}, unset, nullptr, " VxCam "},
            {{"--sysroot", sysroot.Path(), "--help"},
             unset,
             "CameraPosition value \"x\" is not a number",
             "[Global Settings]"},
            {{"-v", "--help"}, unset, "No override settings text file", nullptr},
            {{"--help"}, "*:i", "No override settings text file", nullptr},
    };
    for (const auto& c : logs) {
        std::vector<std::string> argv = {vxcamtest::Vxcamctl()};
        argv.insert(argv.end(), c.arguments.begin(), c.arguments.end());
        const ProcessResult result = vxcamtest::RunProcess(
                argv, {{"ANDROID_LOG_TAGS", c.logTags}, {"VXCAMCTL_QUIET", unset}});
        EXPECT_EQ(result.exitCode, 0) << c.arguments[0];
        if (c.shown != nullptr) {
            EXPECT_NE(result.err.find(c.shown), std::string::npos) << result.err;
        }
        if (c.hidden != nullptr) {
            EXPECT_EQ(result.err.find(c.hidden), std::string::npos) << result.err;
        }
    }
}

TEST(VxcamctlSettings, ShowsWhereEachValueCameFrom) {
    TempDir sysroot;
    sysroot.Write("vendor/build.prop",
                  "vendor.camera.vcf.LogInfoMask=0x3f\n"
                  "vendor.camera.vcf.LogInfoMsk=0x3f\n"
                  "vendor.vxf.feature.86=1\n");  // the tele zoom feature
    sysroot.Write("vendor/etc/camera/vxcamoverridesettings.txt", "; threads\nNumberOfThread=4\n");
    const ProcessResult result = RunVxcamctl({"--sysroot", sysroot.Path(), "settings"});
    EXPECT_EQ(result.exitCode, 1) << result.err;  // for the misspelt property
    EXPECT_NE(result.out.find("(sysroot: " + sysroot.Path() + ")"), std::string::npos);
    for (const char* line : {
                 "\nLogEnable                      Integer    default       1\n",
                 "\nLogInfoMask                    Integer    property      0x3f  (default 0x23)\n",
                 "\nNumberOfThread                 Integer    override:2    4  (default 6)\n",
                 "\nTeleZoomStart                  Float      feature       3.000000  (default "
                 "2.000000)\n",
         }) {
        EXPECT_NE(result.out.find(line), std::string::npos) << line << result.out;
    }
    EXPECT_NE(result.err.find("property 'vendor.camera.vcf.LogInfoMsk' names no setting (nearest "
                              "setting: 'LogInfoMask')"),
              std::string::npos)
            << result.err;
}

// The session folders left in a sysroot's camera root.
std::vector<std::string> SessionFoldersIn(const TempDir& sysroot) {
    std::vector<std::string> folders;
    for (const auto& entry : std::filesystem::directory_iterator(sysroot / "data/vendor/camera")) {
        const std::string name = entry.path().filename().string();
        if (name != ".keep") folders.push_back(name);
    }
    return folders;
}

// A camera host's run through the entry table, with closes under way while threads log and a
// share of lines through the debug frame: every line is accounted for, the summary comes first
// and the run's folders are removed. Also on a kernel without membarrier, where the capture's lock
// takes its other way.
TEST(VxcamctlSession, AccountsForEveryLine) {
    for (bool membarrier : {true, false}) {
        SCOPED_TRACE(membarrier ? "with membarrier, -v" : "without membarrier");
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
        arguments.push_back(membarrier ? "-v" : "--no-membarrier");
        const ProcessResult result = RunVxcamctl(arguments);
        EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
        const size_t verdict = result.out.find("\nresult: no loss\n");
        EXPECT_NE(verdict, std::string::npos) << result.out;
        EXPECT_NE(result.out.find("total: logged 18000, landed "), std::string::npos) << result.out;
        EXPECT_EQ(result.out.find("no debug-frame lines"), std::string::npos) << result.out;
        // "no loss" also means: as many lines dropped during the closes as the library reported.
        EXPECT_NE(result.out.find("lines the library reported as skipped during a close: "),
                  std::string::npos)
                << result.out;
        // The details follow the summary, and only when asked for.
        const size_t files = result.out.find("\nfiles:\n");
        const size_t rows = result.out.find("\nsession  thread ");
        EXPECT_EQ(files != std::string::npos && rows != std::string::npos, membarrier) << result.out;
        if (membarrier) {
            EXPECT_LT(verdict, files) << result.out;
        }
        EXPECT_EQ(result.out.find("__Tid") != std::string::npos, membarrier) << result.out;
        EXPECT_EQ(SessionFoldersIn(sysroot), std::vector<std::string>{});
    }
}

// Small runs, and what each says: the folders kept or removed, the reason when lines are lost
// (the library's own errors, gathered), the short bench's caveat, and the option errors.
TEST(VxcamctlSession, SaysWhatARunFound) {
    struct Case {
        const char* what;
        std::vector<std::string> arguments;  // after session --sysroot DIR
        int exitCode;
        std::vector<std::string> present;  // in stdout or stderr
        std::vector<std::string> absent = {};
        bool foldersLeft = false;
        bool unwritableCamera = false;
    };
    const Case cases[] = {
            {"--opt=value, --keep",
             {"--threads=2", "--lines=200", "--sessions=1", "--keep"},
             0,
             {"sessions 1, threads 2, lines 200 each", ": kept\n", "result: no loss\n"},
             {"\nfiles:", "\nsession  thread "},
             true},
            {"lost lines: the details without -v, the folders kept",
             {"--library", LOSSY_ENTRY_LIBRARY, "--threads", "2", "--lines", "500", "--sessions",
              "1", "--logsystem-every", "0"},
             1,
             {"landed 990, dropped during a close 0 (accepted), lost 10",
              "result: LINES LOST OR DAMAGED\n", "kept for a look, as the check failed",
              "\nfiles:\n", "\nsession  thread "},
             {},
             true},
            {"a camera folder the library cannot write to",
             {"--threads", "2", "--lines", "100", "--sessions", "1"},
             1,
             {"\nthe library's errors and warnings (", " x E ",
              "Failed to create Offlinelogger folder", "Offlinelog failed to open file and write",
              "this process cannot make a folder in ", "lost 200", "\nfiles: none\n"},
             {},
             false,
             true},
            {"--bench, too short to judge",
             {"--threads", "2", "--lines", "30000", "--sessions", "1", "--bench"},
             0,
             {"bench: too short to judge: the threads logged for ",
              "capture per line, median of 2 threads: ", " ns of CPU time, ",
              " lines/s per thread (wall time, median thread), ", " lines/s over all threads",
              "flush: ", " MB/s (", "latency per call, all threads: p50 ", "pool of 25 buckets",
              "memory follows use: peak - idle = ", "result: no loss\n"},
             {"__Tid"}},
            {"--help",
             {"--help"},
             0,
             {"--duration S ", "(default 4)", "(default 10000)", "--keep ", "-v, --verbose ",
              "(default libvxcamcommonutils.so", "fails an hour's run.\n"}},
            {"a bad number",
             {"--threads=2x"},
             2,
             {"vxcamctl session: --threads needs a number from 1 to 1024, not '2x'\n"}},
            {"a value for a switch", {"--bench=1"}, 2, {"vxcamctl session: --bench takes no value\n"}},
            {"an ambiguous prefix",
             {"--l", "5"},
             2,
             {"'--l' is ambiguous: --lines, --length, --logsystem-every, --library\n"}},
            {"options that do not go together",
             {"--duration", "3", "--keep"},
             2,
             {"--keep does not go with --duration\n"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TempDir sysroot;
        sysroot.MakeCameraRoot(true);
        const std::string camera = sysroot / "data/vendor/camera";
        if (c.unwritableCamera) {
            chmod(camera.c_str(), 0555);
            // Root writes anywhere: its children are left without that right.
            if (geteuid() == 0 && prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE, 0, 0, 0) != 0) {
                std::cout << "skipped: cannot drop CAP_DAC_OVERRIDE for the children\n";
                continue;
            }
        }
        std::vector<std::string> arguments = {"session", "--sysroot", sysroot.Path()};
        arguments.insert(arguments.end(), c.arguments.begin(), c.arguments.end());
        const ProcessResult result = RunVxcamctl(arguments);
        chmod(camera.c_str(), 0755);
        EXPECT_EQ(result.exitCode, c.exitCode) << result.out << result.err;
        const std::string output = result.out + result.err;
        for (const std::string& text : c.present) {
            EXPECT_NE(output.find(text), std::string::npos) << "missing: " << text << "\n"
                                                            << output;
        }
        for (const std::string& text : c.absent) {
            EXPECT_EQ(output.find(text), std::string::npos) << "unexpected: " << text << "\n"
                                                            << output;
        }
        EXPECT_EQ(!SessionFoldersIn(sysroot).empty(), c.foldersLeft);
    }
}

// --duration: sessions of threads that come and go, each session checked after its close and
// its files deleted; with -v a line per session and the resident memory second by second.
TEST(VxcamctlSession, SoakChecksEachSession) {
    TempDir sysroot;
    sysroot.MakeCameraRoot(true);
    const ProcessResult result =
            RunVxcamctl({"session", "--sysroot", sysroot.Path(), "--threads", "4", "--lines", "500",
                         "--duration", "3", "--close-while-logging", "-v"});
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    for (const char* text :
         {"soak: 3 s of camera sessions of 2 s, 4 thread slots, 500 lines per thread",
          "\nsession 1: logged ", "\npool: ",
          "lines the library reported as skipped during a close: ", "\nresult: no loss\n",
          "\nresident memory (VmRSS, MiB), one sample a second:\n     0 s  "}) {
        EXPECT_NE(result.out.find(text), std::string::npos) << text << "\n" << result.out;
    }
    EXPECT_LT(result.out.find("\nresult: no loss\n"), result.out.find("\nresident memory"));
    EXPECT_EQ(result.out.find("__Tid"), std::string::npos) << result.out;
    EXPECT_EQ(SessionFoldersIn(sysroot), std::vector<std::string>{});
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
