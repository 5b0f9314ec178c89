#!/usr/bin/env python3
"""Runs a command on a kernel that looks older than this one: a seccomp filter refuses a system
call, or one form of it, as kernels without it do. Every process the command starts inherits it.

  --mremap-dontunmap  mremap with MREMAP_DONTUNMAP fails with EINVAL (Linux before 5.7)
  --membarrier        membarrier fails with ENOSYS (Linux before 4.14)

Usage: refuse-syscalls.py [--mremap-dontunmap] [--membarrier] COMMAND [ARGUMENT...]
"""
import ctypes
import errno
import os
import platform
import struct
import sys

# The build machine's system call numbers: the filter is the kernel's, so under qemu-user it sees
# the calls qemu makes on its guest's behalf.
ABIS = {
    # machine: (AUDIT_ARCH_*, __NR_mremap, __NR_membarrier)
    "x86_64": (0xC000003E, 25, 324),
    "aarch64": (0xC00000B7, 216, 283),
}
MREMAP_DONTUNMAP = 4

BPF_LD_W_ABS = 0x20
BPF_JEQ_K = 0x15
BPF_JSET_K = 0x45
BPF_RET_K = 0x06
SECCOMP_RET_ALLOW = 0x7FFF0000
SECCOMP_RET_ERRNO = 0x00050000
PR_SET_NO_NEW_PRIVS = 38
PR_SET_SECCOMP = 22
SECCOMP_MODE_FILTER = 2

# struct seccomp_data: nr at 0, arch at 4, args[] from 16 (8 bytes each, the low half first).
OFFSET_NR, OFFSET_ARCH, OFFSET_ARG3 = 0, 4, 16 + 8 * 3


def program(arch, mremap, membarrier, refuse_dontunmap, refuse_membarrier):
    # Jumps name their targets; they are resolved to the forward offsets BPF counts in.
    code = [
        (BPF_LD_W_ABS, OFFSET_ARCH, None, None),
        (BPF_JEQ_K, arch, None, "allow"),
        (BPF_LD_W_ABS, OFFSET_NR, None, None),
    ]
    if refuse_membarrier:
        code.append((BPF_JEQ_K, membarrier, "enosys", None))
    if refuse_dontunmap:
        code += [
            (BPF_JEQ_K, mremap, None, "allow"),
            (BPF_LD_W_ABS, OFFSET_ARG3, None, None),
            (BPF_JSET_K, MREMAP_DONTUNMAP, "einval", None),
        ]
    labels = {}
    for name, result in (("allow", SECCOMP_RET_ALLOW),
                         ("einval", SECCOMP_RET_ERRNO | errno.EINVAL),
                         ("enosys", SECCOMP_RET_ERRNO | errno.ENOSYS)):
        labels[name] = len(code)
        code.append((BPF_RET_K, result, None, None))
    out = b""
    for index, (op, k, when_true, when_false) in enumerate(code):
        jump = lambda label: labels[label] - index - 1 if label else 0
        out += struct.pack("HBBI", op, jump(when_true), jump(when_false), k)
    return out


def main():
    arguments = sys.argv[1:]
    refuse = set()
    while arguments and arguments[0] in ("--mremap-dontunmap", "--membarrier"):
        refuse.add(arguments.pop(0))
    if not arguments:
        sys.exit(__doc__.strip().splitlines()[-1])
    abi = ABIS.get(platform.machine())
    if abi is None:
        sys.exit(f"refuse-syscalls: no system call numbers for {platform.machine()}")
    code = program(*abi, "--mremap-dontunmap" in refuse, "--membarrier" in refuse)

    class SockFprog(ctypes.Structure):
        _fields_ = [("len", ctypes.c_ushort), ("filter", ctypes.c_char_p)]

    libc = ctypes.CDLL(None, use_errno=True)
    libc.prctl.argtypes = [ctypes.c_int, ctypes.c_ulong, ctypes.c_void_p, ctypes.c_ulong,
                           ctypes.c_ulong]
    fprog = SockFprog(len(code) // 8, code)
    if (libc.prctl(PR_SET_NO_NEW_PRIVS, 1, None, 0, 0) != 0 or
            libc.prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, ctypes.addressof(fprog), 0, 0) != 0):
        sys.exit(f"refuse-syscalls: seccomp: {os.strerror(ctypes.get_errno())}")
    os.execvp(arguments[0], arguments)


if __name__ == "__main__":
    main()
