// Helpers shared by the test suites: capturing the Android log, temporary folders, and running a
// child process with a prepared environment.
#ifndef VXCAM_TEST_SUPPORT_H
#define VXCAM_TEST_SUPPORT_H

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <VxCamLogSink.h>
#include <android/log.h>

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
    std::string tag;
    std::string message;
};

// Swaps the Android logger for a recorder while in scope.
class LogCapture {
  public:
    LogCapture() {
        std::lock_guard<std::mutex> lock(Mutex());
        Current() = this;
        VxCamLogSetSink(Record);
    }
    ~LogCapture() {
        VxCamLogSetSink(nullptr);
        std::lock_guard<std::mutex> lock(Mutex());
        Current() = nullptr;
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> Lines() const {
        std::lock_guard<std::mutex> lock(Mutex());
        return m_lines;
    }
    std::vector<std::string> Messages() const {
        std::vector<std::string> messages;
        for (const LogLine& line : Lines()) messages.push_back(line.message);
        return messages;
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(Mutex());
        m_lines.clear();
    }
    // Whether any recorded message contains `text`.
    bool Has(const std::string& text) const {
        for (const std::string& message : Messages()) {
            if (message.find(text) != std::string::npos) return true;
        }
        return false;
    }

  private:
    static std::mutex& Mutex() {
        static std::mutex mutex;
        return mutex;
    }
    static LogCapture*& Current() {
        static LogCapture* current = nullptr;
        return current;
    }
    static void Record(const VxCamLogMessage* message) {
        std::lock_guard<std::mutex> lock(Mutex());
        if (Current() == nullptr) return;
        Current()->m_lines.push_back({message->priority, message->tag ? message->tag : "",
                                      message->message ? message->message : ""});
    }

    std::vector<LogLine> m_lines;
};

class TempDir {
  public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "vxcamtest.XXXXXX").string();
        m_path = mkdtemp(pattern.data());
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return m_path; }
    std::string operator/(const std::string& relative) const { return m_path + "/" + relative; }

    // Writes `text` to the relative path, creating folders on the way.
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
};

inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

struct ProcessResult {
    int exitCode = -1;  // -1 when the child did not exit normally
    int signal = 0;
    std::string out;
    std::string err;
};

// Runs argv[0] with this process's environment plus `env` (a value of nullptr-equivalent "\x01"
// removes the variable), collecting both output streams.
inline ProcessResult RunProcess(const std::vector<std::string>& argv,
                                const std::map<std::string, std::string>& env = {}) {
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        if (env.count(text.substr(0, text.find('='))) == 0) environment.push_back(text);
    }
    for (const auto& [key, value] : env) {
        if (value != "\x01") environment.push_back(key + "=" + value);
    }
    std::vector<char*> envp, args;
    for (std::string& text : environment) envp.push_back(text.data());
    envp.push_back(nullptr);
    std::vector<std::string> argCopy = argv;
    for (std::string& text : argCopy) args.push_back(text.data());
    args.push_back(nullptr);

    int outPipe[2], errPipe[2];
    ProcessResult result;
    if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) return result;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(outPipe[1]);
    close(errPipe[1]);
    if (spawned != 0) {
        close(outPipe[0]);
        close(errPipe[0]);
        result.err = "spawn failed: " + std::string(strerror(spawned));
        return result;
    }
    pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    int open = 2;
    while (open > 0) {
        if (poll(fds, 2, -1) < 0) break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            char buffer[65536];
            const ssize_t got = read(fds[i].fd, buffer, sizeof(buffer));
            if (got > 0) {
                sinks[i]->append(buffer, static_cast<size_t>(got));
            } else {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    return result;
}

struct ChildEnd {
    pid_t pid;
    int exitCode;  // -1 when a signal ended it
    int signal;
};

// Exit status of a child that returned from its body instead of ending itself.
constexpr int kChildReturned = 3;

// Runs `body` in a forked child on a fresh sysroot `root` (its camera folder made), from the
// sysroot's folder; a child that returns from `body` exits with kChildReturned, one that hangs is
// ended by SIGALRM after 30 s.
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

// Only where the build has vxcamctl (VXCAM_BUILD_TOOLS).
#ifdef VXCAMCTL_PATH
inline std::string Vxcamctl() {
    return VXCAMCTL_PATH;
}

// Runs vxcamctl with `arguments`; `logTags` filters the library's Android log on stderr (by
// default everything is kept out of the way).
inline ProcessResult RunVxcamctl(const std::vector<std::string>& arguments,
                                 const std::string& logTags = "*:s") {
    std::vector<std::string> argv = {Vxcamctl()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return RunProcess(argv, {{"ANDROID_LOG_TAGS", logTags}});
}
#endif

}  // namespace vxcamtest

#endif  // VXCAM_TEST_SUPPORT_H
