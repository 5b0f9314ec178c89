// The commands of vxcamctl. Each takes the arguments after its own name (argv[0] is the command).
#ifndef VXCAMCTL_COMMANDS_H
#define VXCAMCTL_COMMANDS_H

#include <stdint.h>

#include <string>
#include <vector>

namespace vxcamctl {

// Exit statuses shared by every command.
constexpr int kExitOk = 0;
constexpr int kExitFindings = 1;  // the command ran and found something wrong
constexpr int kExitUsage = 2;     // bad arguments or an unreadable input

// printf into a string of at most 511 characters.
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Reads all of `path` for `command`; says why on stderr and returns false when it cannot, or when
// the file is over 4 GiB (the library's lengths are 32-bit).
bool ReadWholeFile(const char* command, const char* path, std::vector<uint8_t>* data);

// "/data/vendor/camera" under $VXCAM_SYSROOT, as the library resolves it on a host.
std::string CameraRoot();

int RunSettings(int argc, char** argv);
int RunSession(int argc, char** argv);
int RunCrash(int argc, char** argv);
int RunZlib(int argc, char** argv);
int RunFormat(int argc, char** argv);
int RunJpeg(int argc, char** argv);
int RunLogcat(int argc, char** argv);
int RunSysroot(int argc, char** argv);

}  // namespace vxcamctl

#endif  // VXCAMCTL_COMMANDS_H
