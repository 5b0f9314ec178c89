// vxcamctl logcat as a user meets it: a session folder's thread files merged into one stream by
// time stamp, the filters, and the folders it must survive.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace {

using vxcamtest::ExpectTool;
using vxcamtest::ProcessResult;
using vxcamtest::RunVxcamctl;
using vxcamtest::TempDir;
using vxcamtest::ToolCase;

const std::string kPrefix = "VxCam_OfflineLog_2026-03-14--09-26-53-000001_";

// The lines of the fixture, named by thread and order within the thread; the time stamps say
// where each belongs in the merged stream.
const std::string kA1 = "03-14 09:26:53:100000000  4242   101 I VxCam: 101 opens\n";
const std::string kA2 = "03-14 09:26:53:400000000  4242   101 I VxCam: 101 ties with 202\n";
const std::string kA3 = "03-14 09:26:53:600000000  4242   101 E VxCam: 101 segment 2\n";
const std::string kA4 = "03-14 09:26:54:000000000  4242   101 I VxCam: 101 segment 10\n";
const std::string kA5 = "03-14 09:26:55:500000000  4242   101 V VxCam: 101 session 2\n";
const std::string kB0 = "host banner added without a stamp\n";
const std::string kB1 = "03-14 09:26:53:200000000  4242   202 I VxCam: 202 starts\n";
const std::string kB2 = "03-14 09:26:53:400000000  4242   202 I VxCam: 202 ties with 101\n";
const std::string kB3 = "    continued without a stamp\n";
const std::string kB4 = "03-14 09:26:54:500000000  4242   202 I VxCam: 202 cut off";  // no '\n'
const std::string kC1 = "03-14 09:26:53:500000000  4242   303 I VxCam: 303 segment 9\n";
const std::string kC2 = "03-14 09:26:54:200000000  4242   303 I VxCam: 303 segment 10\n";
const std::string kC3 = "03-14 09:26:55:000000000  4242   303 F DEBUG   : 303 session 2\n";

// Three threads, segments 2 and 10 (and 9 and 10) that sort wrongly as text, two sessions, a
// truncated last line, lines without a stamp, a binary log and a crash dump that are no thread's.
std::string WriteSessionFolder(const TempDir& root) {
    const std::string folder = "VxCam_OfflineLog_2026-03-14--09-26-53-000002";
    const std::map<std::string, std::string> files = {
            {"_Tid101_Session1_Segment1.txt", kA1 + kA2},
            {"_Tid101_Session1_Segment2.txt", kA3},
            {"_Tid101_Session1_Segment10.txt", kA4},
            {"_Tid101_Session2_Segment1.txt", kA5},
            {"_Tid202_Session1_Segment1.txt", kB0 + kB1 + kB2 + kB3 + kB4},
            {"_Tid303_Session1_Segment9.txt", kC1},
            {"_Tid303_Session1_Segment10.txt", kC2},
            {"_Tid303_Session2_Segment1.txt", kC3},
            {"_Tid101_Session1_Segment1.bin", "03-14 09:26:53:000000001 binary\n\x01\x02"},
            {"_Session1_Crash_Dump.log", "03-14 09:26:53:000000001  4242   101 F DEBUG   : #00\n"},
    };
    for (const auto& [name, text] : files) root.Write(folder + "/" + kPrefix + name, text);
    return root / folder;
}

std::string Join(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += line;
    return text;
}

// The fixture's folder, a crash backup of it and an earlier session, in a camera folder as adb
// pulls it; then what cannot be read: a message and a fixed status, never a crash or a hang.
TEST(VxcamctlLogcat, MergesFiltersAndRefuses) {
    TempDir root;
    const std::string folder = WriteSessionFolder(root);
    // A crash backup holds copies under the same names, and an empty file for a name whose source
    // had gone; the library may append to a source after the copy.
    const std::string backupName = "OfflineLog_CrashLog_2026-03-14--09-26-56-000003";
    root.Write(
            backupName +
                    "/VxCam_OfflineLog_2026-03-14--08-00-00-000000__Tid101_Session1_Segment1.txt",
            "");
    const std::string copies = root / backupName;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().extension() == ".txt") {
            std::filesystem::copy_file(entry.path(),
                                       copies + "/" + entry.path().filename().string());
        }
    }
    const std::string kC4 = "03-14 09:26:56:000000000  4242   303 I VxCam: 303 after the backup\n";
    root.Write(std::filesystem::path(folder).filename().string() + "/" + kPrefix +
                       "_Tid303_Session2_Segment1.txt",
               kC3 + kC4);
    const std::string kOld = "03-13 22:00:00:000000000  4242     7 I VxCam: an earlier session\n";
    root.Write(
            "VxCam_OfflineLog_2026-03-13--22-00-00-000001/"
            "VxCam_OfflineLog_2026-03-13--22-00-00-000000__Tid7_Session1_Segment1.txt",
            kOld);
    const std::string sessions =
            "sessions in '" + root.Path() +
            "', oldest first:\n"
            "  1  VxCam_OfflineLog_2026-03-13--22-00-00-000001  1 text file\n"
            "  2  VxCam_OfflineLog_2026-03-14--09-26-53-000002  8 text files, crash backup " +
            backupName + "\n";
    // Ties go to the lower thread id; unstamped lines stay beside their neighbours; the cut-off
    // line is printed once, with a line feed.
    const std::string stream =
            Join({kA1, kB0, kB1, kA2, kB2, kB3, kC1, kA3, kA4, kC2, kB4 + "\n", kC3, kA5});
    const struct {
        std::vector<std::string> arguments;
        std::string out;
        std::string err;
    } cases[] = {
            {{folder}, stream + kC4, "skipped 1 binary log file (.bin)"},
            {{copies}, stream, ""},
            // Read together, each copy is read once.
            {{folder, copies}, stream + kC4, "passed over 8 copies"},
            // A camera folder: its newest session with its backup, unless --session picks one.
            {{root.Path()},
             stream + kC4,
             sessions + "vxcamctl logcat: merging the newest, session 2"},
            {{"--session", "1", root.Path()}, kOld, ""},
            {{"--list", root.Path()}, sessions, ""},
            {{"--tid", "303", "--tid=101", copies},
             Join({kA1, kA2, kC1, kA3, kA4, kC2, kC3, kA5}),
             ""},
            // Inclusive, at the line's own precision; the unstamped line goes with its stamp.
            {{"--since", "03-14 09:26:53.4", copies},
             Join({kA2, kB2, kB3, kC1, kA3, kA4, kC2, kB4 + "\n", kC3, kA5}),
             ""},
            {{"--grep", "segment (2|10)$", copies}, kA3 + kA4 + kC2, ""},
    };
    for (const auto& c : cases) {
        std::vector<std::string> arguments = {"logcat"};
        arguments.insert(arguments.end(), c.arguments.begin(), c.arguments.end());
        const ProcessResult result = RunVxcamctl(arguments);
        EXPECT_EQ(result.exitCode, 0) << c.arguments[0] << result.err;
        EXPECT_EQ(result.out, c.out) << c.arguments[0] << " " << c.arguments.back();
        EXPECT_NE(result.err.find(c.err), std::string::npos) << result.err;
    }

    std::filesystem::create_directories(root / "empty");
    const ToolCase refusals[] = {
            {{"logcat"}, 2, {"usage: vxcamctl logcat"}},
            {{"logcat", root / "absent"}, 2, {"cannot open folder"}},
            {{"logcat", "--tid", "12x", folder}, 2, {"--tid needs decimal thread ids"}},
            {{"logcat", "--since", "14-03 09:26:53", folder}, 2, {"--since needs a time stamp"}},
            {{"logcat", "--session", "3", root.Path()},
             2,
             {"--session 3: '" + root.Path() + "' holds 2 sessions"}},
            {{"logcat", root / "empty"}, 1, {"no text log file"}},
            {{"logcat", "--tid", "404", folder}, 1, {"no line passed the filters"}},
    };
    for (const ToolCase& c : refusals) ExpectTool(c);

    // Garbage with no stamp and a FIFO named like a log file: the bytes come out as they are, and
    // the FIFO, which would block a reader, is passed over.
    std::string garbage = "13-40 25:61:61:000000000 not a stamp\n03-14 09:2";
    for (int byte = 0; byte < 256; ++byte) garbage += static_cast<char>(byte);
    root.Write("junk/x__Tid7_Session1_Segment1.txt", garbage);
    ASSERT_EQ(mkfifo((root / "junk/x__Tid8_Session1_Segment1.txt").c_str(), 0600), 0);
    const ProcessResult junk = RunVxcamctl({"logcat", root / "junk"});
    EXPECT_EQ(junk.exitCode, 0) << junk.err;
    EXPECT_EQ(junk.out, garbage + "\n");
}

// The real library's files: every line `vxcamctl session` logged comes out once, and the stamped
// lines in time order.
TEST(VxcamctlLogcat, ReadsWhatTheLibraryWrote) {
    TempDir sysroot;
    sysroot.MakeCameraRoot(true);
    const ProcessResult session =
            RunVxcamctl({"session", "--sysroot", sysroot.Path(), "--threads", "3", "--lines",
                         "3000", "--sessions", "2", "--logsystem-every", "3", "--keep"});
    ASSERT_EQ(session.exitCode, 0) << session.out << session.err;
    std::vector<std::string> arguments = {"logcat"};
    for (const auto& entry : std::filesystem::directory_iterator(sysroot / "data/vendor/camera")) {
        if (entry.path().filename() != ".keep") arguments.push_back(entry.path().string());
    }
    const ProcessResult result = RunVxcamctl(arguments);
    ASSERT_EQ(result.exitCode, 0) << result.err;

    std::istringstream lines(result.out);
    std::string line, lastStamp;
    std::set<std::string> seen;  // "vxs SESSION THREAD SEQUENCE ..." of each line
    unsigned long stamped = 0;
    while (std::getline(lines, line)) {
        const size_t marker = line.find("vxs ");
        ASSERT_NE(marker, std::string::npos) << line;
        EXPECT_TRUE(seen.insert(line.substr(marker)).second) << line;
        if (line.compare(5, 1, " ") == 0 && line.compare(14, 1, ":") == 0) {
            ++stamped;
            EXPECT_GE(line.substr(0, 24), lastStamp) << line;  // fixed width: text order is time
            lastStamp = line.substr(0, 24);
        }
    }
    EXPECT_EQ(seen.size(), 18000u);
    EXPECT_EQ(stamped, 2 * 3 * 1000u);  // sequence numbers 0, 3, ... 2997 through the debug frame
}

}  // namespace
