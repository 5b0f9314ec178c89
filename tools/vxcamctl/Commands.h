// The commands of vxcamctl. Each takes the arguments after its own name (argv[0] is the command).
#ifndef VXCAMCTL_COMMANDS_H
#define VXCAMCTL_COMMANDS_H

#include <getopt.h>
#include <stdint.h>
#include <stdio.h>

#include <functional>
#include <string>
#include <vector>

namespace vxcamctl {

// Exit statuses shared by every command.
constexpr int kExitOk = 0;
constexpr int kExitFindings = 1;  // the command ran and found something wrong
constexpr int kExitUsage = 2;     // bad arguments or an unreadable input

// printf into a string of at most 511 characters.
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Says on stderr what is wrong with the command line, as "vxcamctl COMMAND: MESSAGE"; returns
// kExitUsage. A message names the argument and the reason: "unknown option '--chek'".
int UsageError(const char* command, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Reads a command's arguments with getopt_long (argv[0] is the command's name): long options as
// "--name value" or "--name=value", short ones as getopt's `shortOptions` letters (':' after one
// that takes a value), operands anywhere among them, and everything after "--" as operands.
// onOption(id, value) is called for each option in turn, with the short letter or the long
// option's `val`, and nullptr for an option without a value; it returns false when it has reported
// a bad value itself (UsageError). Returns false when an argument is wrong, having said which and
// why on stderr: "unknown option '--chek'", "--check needs a value", "--help takes no value",
// "'--l' is ambiguous: --lines, --length". A long option named "sysroot" must be written in full,
// since it takes effect before main().
bool ParseOptions(const char* command, int argc, char** argv, const char* shortOptions,
                  const option* longOptions,
                  const std::function<bool(int id, const char* value)>& onOption,
                  std::vector<const char*>* operands);

// ParseOptions for a command whose only option is --help (-h), which prints `printUsage`'s text
// on stdout. Returns false when the command is done, with its exit status in `*status`: kExitOk
// after --help, kExitUsage after a bad argument.
bool ParseOperands(const char* command, int argc, char** argv, void (*printUsage)(FILE* out),
                   std::vector<const char*>* operands, int* status);

// Opens `path` to read for `command`, refusing a directory; says why on stderr and returns
// nullptr when it cannot ("cannot read '/tmp': Is a directory").
FILE* OpenInput(const char* command, const char* path);

// Reads all of `path` for `command`; says why on stderr and returns false when it cannot, or when
// the file is over 4 GiB (the library's lengths are 32-bit).
bool ReadWholeFile(const char* command, const char* path, std::vector<uint8_t>* data);

// Whether `directory` can serve as --sysroot; says why not on stderr.
bool CheckSysroot(const char* command, const char* directory);

// A device path ("/vendor/build.prop") under $VXCAM_SYSROOT, as the library resolves it on a host.
std::string DevicePath(const char* devicePath);

// "/data/vendor/camera" under $VXCAM_SYSROOT.
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
