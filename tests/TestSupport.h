// Helpers shared by the suites: the Android log captured, temporary folders, child processes.
#ifndef VXCAM_TEST_SUPPORT_H
#define VXCAM_TEST_SUPPORT_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <VxCamLogSink.h>
#include <android/log.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace vxcamtest {

struct LogLine {
    int priority;
    std::string tag, message;
};

// Swaps the Android logger for a recorder while in scope.
class LogCapture {
  public:
    LogCapture() {
        std::lock_guard<std::mutex> lock(s_mutex);
        s_current = this;
        VxCamLogSetSink(Record);
    }
    ~LogCapture() {
        VxCamLogSetSink(nullptr);
        std::lock_guard<std::mutex> lock(s_mutex);
        s_current = nullptr;
    }
    LogCapture(const LogCapture&) = delete;
    std::vector<LogLine> Lines() const {
        std::lock_guard<std::mutex> lock(s_mutex);
        return m_lines;
    }
    std::vector<std::string> Messages() const {
        std::vector<std::string> messages;
        for (const LogLine& line : Lines()) messages.push_back(line.message);
        return messages;
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(s_mutex);
        m_lines.clear();
    }
    bool Has(const std::string& text) const {  // in any message
        const std::vector<std::string> all = Messages();
        return std::any_of(all.begin(), all.end(),
                           [&](const std::string& m) { return m.find(text) != std::string::npos; });
    }

  private:
    static void Record(const VxCamLogMessage* message) {
        std::lock_guard<std::mutex> lock(s_mutex);
        if (s_current == nullptr) return;
        s_current->m_lines.push_back({message->priority, message->tag ? message->tag : "",
                                      message->message ? message->message : ""});
    }

    inline static std::mutex s_mutex;
    inline static LogCapture* s_current = nullptr;
    std::vector<LogLine> m_lines;
};

class TempDir {
  public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "vxcamtest.XXXXXX").string();
        m_path = mkdtemp(pattern.data());
    }
    ~TempDir() { std::filesystem::remove_all(m_path, m_ignored); }
    TempDir(const TempDir&) = delete;
    const std::string& Path() const { return m_path; }
    std::string operator/(const std::string& relative) const { return m_path + "/" + relative; }

    // Creates the folders on the way.
    std::string Write(const std::string& relative, const std::string& text) const {
        const std::filesystem::path file = m_path + "/" + relative;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << text;
        return file.string();
    }

    // A device tree with the camera folder, optionally with offline logging switched on.
    void MakeCameraRoot(bool offlineLog = false) const {
        Write("data/vendor/camera/.keep", "");
        if (offlineLog) Write("vendor/build.prop", "vendor.camera.vcf.LogOfflineEnable=1\n");
    }

  private:
    std::string m_path;
    std::error_code m_ignored;
};

inline std::string ReadFile(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

struct ProcessResult {
    int exitCode = -1;  // -1 when the child did not exit normally
    int signal = 0;
    std::string out, err;
};

// Runs argv[0] with this environment plus `env` ("\x01" removes a variable), its output in memory.
inline ProcessResult RunProcess(const std::vector<std::string>& argv,
                                const std::map<std::string, std::string>& env = {}) {
    std::vector<std::string> environment, arguments = argv;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        if (env.count(text.substr(0, text.find('='))) == 0) environment.push_back(text);
    }
    for (const auto& [key, value] : env) {
        if (value != "\x01") environment.push_back(key + "=" + value);
    }
    std::vector<char*> envp, args;
    for (std::string& text : environment) envp.push_back(text.data());
    for (std::string& text : arguments) args.push_back(text.data());
    envp.push_back(nullptr);
    args.push_back(nullptr);

    const int out = memfd_create("stdout", MFD_CLOEXEC), err = memfd_create("stderr", MFD_CLOEXEC);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out, 1);
    posix_spawn_file_actions_adddup2(&actions, err, 2);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ProcessResult result;
    int status = 0;
    if (spawned == 0 && waitpid(pid, &status, 0) == pid) {
        if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
        if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    }
    result.out = ReadFile("/proc/self/fd/" + std::to_string(out));
    result.err = ReadFile("/proc/self/fd/" + std::to_string(err));
    if (spawned != 0) result.err += "spawn failed: " + std::string(strerror(spawned));
    close(out);
    close(err);
    return result;
}

struct ChildEnd {
    pid_t pid;
    int exitCode;  // -1 when a signal ended it
    int signal;
};

constexpr int kChildReturned = 3;  // the exit status of a child whose body returned

// Runs `body` in a forked child from the sysroot `root` (its camera folder made); a hang ends by
// SIGALRM after 30 s.
inline ChildEnd RunInChild(const TempDir& root, const std::function<void()>& body) {
    std::filesystem::create_directories(root / "data/vendor/camera");
    setenv("VXCAM_SYSROOT", root.Path().c_str(), 1);
    const pid_t child = fork();
    if (child == 0) {
        alarm(30);
        if (chdir(root.Path().c_str()) != 0) _exit(kChildReturned);
        body();
        _exit(kChildReturned);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) return {child, -1, 0};
    return {child, WIFEXITED(status) ? WEXITSTATUS(status) : -1,
            WIFSIGNALED(status) ? WTERMSIG(status) : 0};
}

#ifdef VXCAMCTL_PATH  // where the build has vxcamctl
inline std::string Vxcamctl() {
    return VXCAMCTL_PATH;
}

// `logTags` filters the library's Android log on stderr.
inline ProcessResult RunVxcamctl(const std::vector<std::string>& arguments,
                                 const std::string& logTags = "*:s") {
    std::vector<std::string> argv = {Vxcamctl()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return RunProcess(argv, {{"ANDROID_LOG_TAGS", logTags}});
}

// A vxcamctl command line, its exit status, and texts its output (stdout, then stderr) holds in
// this order or must not hold. A usage error (status 2) says so on stderr alone.
struct ToolCase {
    std::vector<std::string> arguments;
    int exitCode;
    std::vector<std::string> present, absent = {};
    std::string logTags = "*:s";
};

inline ProcessResult ExpectTool(const ToolCase& c) {
    const ProcessResult result = RunVxcamctl(c.arguments, c.logTags);
    std::string command = "vxcamctl";
    for (const std::string& argument : c.arguments) command += " " + argument;
    const std::string output = c.exitCode == 2 ? result.err : result.out + result.err;
    EXPECT_EQ(result.exitCode, c.exitCode) << command << "\n" << result.out << result.err;
    if (c.exitCode == 2) {
        EXPECT_EQ(result.out, "") << command;
    }
    size_t from = 0;
    for (const std::string& text : c.present) {
        const size_t at = output.find(text, from);
        EXPECT_NE(at, std::string::npos) << command << "\nmissing or out of order: " << text << "\n"
                                         << output;
        if (at != std::string::npos) from = at + text.size();
    }
    for (const std::string& text : c.absent) {
        EXPECT_EQ(output.find(text), std::string::npos) << command << "\nunexpected: " << text;
    }
    return result;
}
#endif

}  // namespace vxcamtest

#endif  // VXCAM_TEST_SUPPORT_H
