"""How much memory the process has in use."""

import contextlib
import ctypes
import gc
import sys


class _Mallinfo(ctypes.Structure):
    _names = "arena ordblks smblks hblks hblkhd usmblks fsmblks uordblks fordblks keepcost"
    _fields_ = [(name, ctypes.c_size_t) for name in _names.split(" ")]


def heap():
    """Blocks of Python's allocator, and bytes in use of the C heap where that can be read."""
    gc.collect()
    with contextlib.suppress(AttributeError):
        mallinfo2 = ctypes.CDLL(None).mallinfo2
        mallinfo2.restype = _Mallinfo
        info = mallinfo2()
        return sys.getallocatedblocks(), info.uordblks + info.hblkhd
    return sys.getallocatedblocks(), 0
