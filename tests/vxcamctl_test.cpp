// vxcamctl as a user meets it: command lines with their exit statuses and key output lines, the
// override-file lint, the settings' sources, camera sessions and a crash.
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

using vxcamtest::ExpectTool;
using vxcamtest::TempDir;
using vxcamtest::ToolCase;

TEST(Vxcamctl, AnswersEachCommandLine) {
    TempDir folder;
    // Lines 1, 2 and 14 are fine; the findings name each other one.
    const std::string lint = folder.Write(
            "override.txt",
            "; a comment\n\nLogInfoMsk=0x3\nLogEnable\nDumpInputInfo=2\nEnablePreInit=11\n"
            "NumberOfThread=4x\nLogDebugMask=0x1ffffffff\nCameraPosition=1,2,3,4,5,6,7,8,9\n"
            "CameraPosition=1,two,3\nTeleZoomStart=fast\nBufferReleaseWaterLevel=9=6\n"
            "OverridePipeline=" +
                    std::string(130, 'p') + "\nLog Info Mask = 0x3f\n");
    const std::string clean = folder.Write(
            "ok.txt", "LogInfoMask=0x3f\n;LogEnable=0\nTeleZoomStart=2.5\nCameraPosition=0,1\n");
    const std::string sysroot = folder / "sysroot";
    folder.Write("sysroot/vendor/build.prop",
                 "vendor.camera.vcf.LogInfoMask=0x3f\n"
                 "vendor.camera.vcf.LogInfoMsk=0x3f\n"
                 "vendor.vxf.feature.86=1\n");  // the tele zoom feature
    folder.Write("sysroot/vendor/etc/camera/vxcamoverridesettings.txt",
                 "; threads\nNumberOfThread=4\nCameraPosition=1,x\n");
    const std::string unset = "\x01";
    const ToolCase cases[] = {
            // The lint: a finding per line the loader would skip or misread, then the count.
            {{"settings", "--check", lint},
             1,
             {lint + ":3: unknown key 'LogInfoMsk' (nearest setting: 'LogInfoMask')",
              lint + ":4: 'LogEnable' has no value",
              lint + ":5: '2' for 'DumpInputInfo' is not a base-2 number: the library reads 0",
              lint + ":6: '11' for 'EnablePreInit' reads as 3 in base 2, which is not 1",
              lint + ":7: '4x' for 'NumberOfThread' is not wholly a base-10 number: the library "
                     "reads 4 and ignores 'x'",
              lint + ":8: '0x1ffffffff' for 'LogDebugMask' does not fit 32 unsigned bits: the "
                     "library keeps 0xffffffff",
              lint + ":9: CameraPosition lists 9 values: the library keeps the first 8",
              lint + ":10: 'CameraPosition' is set again (first on line 9)",
              lint + ":10: CameraPosition piece 'two' is not a number",
              lint + ":11: 'fast' for 'TeleZoomStart' is not a number",
              lint + ":12: the value of 'BufferReleaseWaterLevel' is '9': the text after the "
                     "second '=' ('6') is ignored",
              lint + ":13: line is 147 characters long: the library reads at most 127 at once "
                     "and takes it as 2 separate lines",
              lint + ":13: 'pppppppppppppppppppp' has no value", lint + ": 13 problems found"},
             {lint + ":1:", lint + ":2:", lint + ":14:"}},
            {{"settings", "--check=" + clean}, 0, {clean + ": no problems found"}},
            {{"settings", "--check", folder / "absent"},
             2,
             {"cannot read '" + folder / "absent" + "': "}},
            // Where each value came from; a property that names no setting is a finding.
            {{"--sysroot", sysroot, "settings"},
             1,
             {"(sysroot: " + sysroot + ")",
              "\nLogEnable                      Integer    default       1\n",
              "\nLogInfoMask                    Integer    property      0x3f  (default 0x23)\n",
              "\nNumberOfThread                 Integer    override:2    4  (default 6)\n",
              "\nTeleZoomStart                  Float      feature       3.000000  (default "
              "2.000000)\n",
              "property 'vendor.camera.vcf.LogInfoMsk' names no setting (nearest setting: "
              "'LogInfoMask')"}},
            // What the library logs while it loads: by default only what is wrong, and not the
            // missing override file that is the rule on a host; all of it with -v or a filter.
            {{"--help"}, 0, {"usage: vxcamctl"}, {" VxCam "}, unset},
            {{"--sysroot", sysroot, "--help"},
             0,
             {"CameraPosition value \"x\" is not a number"},
             {"[Global Settings]"},
             unset},
            {{"-v", "--help"}, 0, {"No override settings text file"}, {}, unset},
            {{"session", "--help"}, 0, {"--duration S ", "(default libvxcamcommonutils.so"}},
            {{}, 2, {"usage: vxcamctl"}},
            {{"frobnicate"}, 2, {"unknown command 'frobnicate'"}},
            {{"--frob", "settings"}, 2, {"vxcamctl: unknown option '--frob'"}},
            {{"settings", "--bogus"}, 2, {"vxcamctl settings: unknown option '--bogus'"}},
            {{"settings", "--sysroot", "/no/such/sysroot"},
             2,
             {"cannot use sysroot '/no/such/sysroot': No such file or directory"}},
            {{"jpeg", "/"}, 2, {"vxcamctl jpeg: cannot read '/': Is a directory"}},
            {{"crash", "--sys=/"}, 2, {"vxcamctl crash: write '--sys' as --sysroot in full"}},
            {{"session", "--threads=2x"},
             2,
             {"vxcamctl session: --threads needs a number from 1 to 1024, not '2x'\n"}},
            {{"session", "--l", "5"},
             2,
             {"'--l' is ambiguous: --lines, --length, --logsystem-every, --library\n"}},
            {{"session", "--duration", "3", "--keep"}, 2, {"--keep does not go with --duration\n"}},
            {{"session", "--library", "/no/such.so"}, 2, {"cannot load /no/such.so"}},
    };
    for (const ToolCase& c : cases) ExpectTool(c);
}

// Runs `vxcamctl session --sysroot DIR ...` on a fresh sysroot; the run's session folders are
// removed unless kept or the check failed.
void ExpectSession(ToolCase run, bool foldersLeft = false, bool unwritableCamera = false) {
    TempDir sysroot;
    sysroot.MakeCameraRoot(true);
    const std::string camera = sysroot / "data/vendor/camera";
    if (unwritableCamera) {
        chmod(camera.c_str(), 0555);
        // Root writes anywhere: its children are left without that right.
        if (geteuid() == 0 && prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE, 0, 0, 0) != 0) {
            std::cout << "skipped: cannot drop CAP_DAC_OVERRIDE for the children\n";
            return;
        }
    }
    run.arguments.insert(run.arguments.begin(), {"session", "--sysroot", sysroot.Path()});
    ExpectTool(run);
    chmod(camera.c_str(), 0755);
    const auto entries = std::distance(std::filesystem::directory_iterator(camera), {});
    EXPECT_EQ(entries > 1, foldersLeft) << run.arguments[3];  // besides .keep
}

const std::string kCloses = "lines the library reported as skipped during a close: ";

// A camera host's run through the entry table, with closes under way while threads log and a
// share of lines through the debug frame: every line is accounted for (as many dropped during the
// closes as the library reported), the summary first. Then a soak of sessions that come and go,
// folders kept, lines lost (with the library's own errors, gathered, when it said why) and the
// short bench.
TEST(VxcamctlSession, SaysWhatARunFound) {
    struct Case {
        ToolCase run;  // arguments after session --sysroot DIR
        bool foldersLeft = false;
        bool unwritableCamera = false;
    };
    const std::vector<std::string> closing = {
            "--threads",         "3", "--lines", "3000", "--sessions", "2", "--close-while-logging",
            "--logsystem-every", "3", "-v"};
    const std::string total = "total: logged 18000, landed ";
    const Case cases[] = {
            {{closing,
              0,
              {total, kCloses, "\nresult: no loss\n", "\nfiles:\n", "__Tid", "\nsession  thread "},
              {"no debug-frame lines"}}},
            {{{"--threads", "4", "--lines", "500", "--duration", "3", "--close-while-logging", "-v"},
              0,
              {"soak: 3 s of camera sessions of 2 s, 4 thread slots, 500 lines per thread",
               "\nsession 1: logged ", "\npool: ", kCloses, "\nresult: no loss\n",
               "\nresident memory (VmRSS, MiB), one sample a second:\n     0 s  "},
              {"__Tid"}}},
            {{{"--library", LOSSY_ENTRY_LIBRARY, "--threads", "2", "--lines", "500", "--sessions",
               "1", "--logsystem-every", "0"},
              1,
              {"kept for a look, as the check failed",
               "landed 990, dropped during a close 0 (accepted), lost 10",
               "result: LINES LOST OR DAMAGED\n", "\nfiles:\n", "\nsession  thread "}},
             true},
            // The library's own errors, gathered, say why the lines were lost.
            {{{"--threads", "2", "--lines", "100", "--sessions", "1"},
              1,
              {"\nthe library's errors and warnings (", " x E ",
               "Failed to create Offlinelogger folder", "Offlinelog failed to open file and write",
               "this process cannot make a folder in ", "lost 200", "\nfiles: none\n"}},
             false,
             true},
            {{{"--threads", "2", "--lines", "30000", "--sessions", "1", "--bench"},
              0,
              {"pool of 25 buckets", "memory follows use: peak - idle = ",
               "bench: too short to judge: the threads logged for ",
               "capture per line, median of 2 threads: ", " lines/s over all threads",
               "flush: ", "latency per call, all threads: p50 ", "result: no loss\n"},
              {"__Tid"}}},
    };
    for (const Case& c : cases) ExpectSession(c.run, c.foldersLeft, c.unwritableCamera);
}

// The same closes on a kernel without membarrier, where the capture lock takes its other way. A
// test of its own, since qemu-user refuses the seccomp filter that takes membarrier away.
TEST(VxcamctlSession, AccountsForEveryLineWithoutMembarrier) {
    ExpectSession({{"--threads", "3", "--lines", "3000", "--sessions", "2", "--close-while-logging",
                    "--logsystem-every", "3", "--no-membarrier"},
                   0,
                   {"total: logged 18000, landed ", kCloses, "\nresult: no loss\n"},
                   {"no debug-frame lines"}});
}

// A real fault on a logging thread of a child: the tool finds the artefacts and says what they
// are. Two crashes before the session's first flush share the relative dump name in the camera
// folder, as a device's do. The sanitizers' own fault handlers are kept out, so the child chains
// to the crash reporter stand-in as a device process chains to its own.
TEST(VxcamctlCrash, FindsTheArtefacts) {
    const char* asan = getenv("ASAN_OPTIONS");
    setenv("ASAN_OPTIONS", (std::string(asan != nullptr ? asan : "") + ":handle_segv=0").c_str(), 1);
    TempDir sysroot;
    sysroot.MakeCameraRoot();
    const std::string camera = sysroot / "data/vendor/camera";
    const std::string found = "all expected artefacts are there";
    const ToolCase cases[] = {
            {{"--threads", "3"},
             0,
             {"child ended by SIGSEGV", "signal code: 2 (SEGV_ACCERR), from the crash header",
              "crash dump: " + camera + "/VxCam_OfflineLog_", "900 of 900 lines", found}},
            {{"--threads=1", "--signal=SEGV"},
             0,
             {"child ended by SIGSEGV", "crash dump: " + camera + "/_Session1_Crash_Dump.log\n",
              "outside the session folder", found}},
            {{"--threads=1"},
             0,
             {"appended to the dump of an earlier crash", "300 of 300 lines", found}},
    };
    for (ToolCase c : cases) {
        c.arguments.insert(c.arguments.begin(),
                           {"crash", "--lines", "300", "--sysroot", sysroot.Path()});
        ExpectTool(c);
    }
}

}  // namespace
