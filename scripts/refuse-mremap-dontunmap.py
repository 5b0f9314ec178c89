#!/usr/bin/env python3
"""Runs a command with mremap(MREMAP_DONTUNMAP) refused with EINVAL, as kernels before 5.7 do.

qemu-user 7.2 passes that mremap to the kernel, which keeps the old range mapped, but then marks the
old range unmapped in its own map of the guest's memory: system calls on it fail (mincore: ENOMEM)
and qemu may hand the range out again. Under this filter the offline logger's buckets take the way
a device kernel before 5.7 makes them take (their pages go back to the system after a flush), which
qemu emulates faithfully. The filter is inherited by every process the command starts.

Usage: refuse-mremap-dontunmap.py COMMAND [ARGUMENT...]
"""
import ctypes
import errno
import os
import platform
import struct
import sys

# The build machine's system call ABI (this runs qemu, not the target's programs).
ABIS = {
    "x86_64": (0xC000003E, 25),  # AUDIT_ARCH_X86_64, __NR_mremap
    "aarch64": (0xC00000B7, 216),  # AUDIT_ARCH_AARCH64, __NR_mremap
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

# struct seccomp_data: nr at 0, arch at 4, args[] from 16 (8 bytes each, low half first).
OFFSET_NR, OFFSET_ARCH, OFFSET_FLAGS = 0, 4, 16 + 8 * 3


def program(arch, number):
    def statement(code, k, jt=0, jf=0):
        return struct.pack("HBBI", code, jt, jf, k)

    return [
        statement(BPF_LD_W_ABS, OFFSET_ARCH),
        statement(BPF_JEQ_K, arch, 0, 4),
        statement(BPF_LD_W_ABS, OFFSET_NR),
        statement(BPF_JEQ_K, number, 0, 2),
        statement(BPF_LD_W_ABS, OFFSET_FLAGS),
        statement(BPF_JSET_K, MREMAP_DONTUNMAP, 1, 0),
        statement(BPF_RET_K, SECCOMP_RET_ALLOW),
        statement(BPF_RET_K, SECCOMP_RET_ERRNO | errno.EINVAL),
    ]


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__.strip().splitlines()[-1])
    abi = ABIS.get(platform.machine())
    if abi is None:
        sys.exit(f"refuse-mremap-dontunmap: no system call table for {platform.machine()}")
    code = b"".join(program(*abi))

    class SockFprog(ctypes.Structure):
        _fields_ = [("len", ctypes.c_ushort), ("filter", ctypes.c_char_p)]

    libc = ctypes.CDLL(None, use_errno=True)
    libc.prctl.argtypes = [ctypes.c_int, ctypes.c_ulong, ctypes.c_void_p, ctypes.c_ulong,
                           ctypes.c_ulong]
    fprog = SockFprog(len(code) // 8, code)
    if (libc.prctl(PR_SET_NO_NEW_PRIVS, 1, None, 0, 0) != 0 or
            libc.prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, ctypes.addressof(fprog), 0, 0) != 0):
        sys.exit(f"refuse-mremap-dontunmap: seccomp: {os.strerror(ctypes.get_errno())}")
    os.execvp(sys.argv[1], sys.argv[1:])


if __name__ == "__main__":
    main()
