"""A training file read in a child process, where the system can fork and
share memory: pyarrow's libraries, its threads' heaps and the pages its
reading leaves behind stay in the child, which ends before the fit starts
(about 45 MiB less beside the fit of a 500,000 x 20 file). The feature
matrix is written by the child into memory both processes map, so it is
never copied; the small rest of the result is pickled beside it.
Elsewhere the file is read in the calling process, with the same result.

An exception raised by the reading is raised again in the caller; a signal
that stops the caller stops the child too.
"""

import mmap
import os
import pickle
import signal
import socket
import struct
import warnings
import weakref

import numpy as np

_LENGTH = struct.Struct("<Q")
_M_ARENA_MAX = -8  # the GNU C library's mallopt parameter


def can_read_apart():
    return hasattr(os, "fork") and hasattr(os, "memfd_create") and hasattr(socket, "send_fds")


def read_apart(read):
    """read(empty) run in a child process where possible: ``empty(shape,
    dtype)`` makes the column-major arrays the reading fills, and read
    returns (matrix, rest) with rest picklable. Returns the same pair."""
    if not can_read_apart():
        return read(_empty_here)
    ours, theirs = socket.socketpair()
    with warnings.catch_warnings():
        # Python 3.12 warns of forking beside other threads (numpy's BLAS
        # pool): the child runs no code of theirs, and their libraries
        # reset them at a fork.
        warnings.simplefilter("ignore", DeprecationWarning)
        pid = os.fork()
    if pid == 0:
        ours.close()
        _read_and_send(read, theirs)
    theirs.close()
    try:
        with ours:
            return _received(ours)
    except BaseException:
        _stop(pid)  # still reading if the caller was interrupted
        raise
    finally:
        os.waitpid(pid, 0)


def _empty_here(shape, dtype):
    return np.empty(shape, dtype, order="F")


class _SharedArrays:
    """Arrays over memory files the parent can map; each file is closed
    when its array is freed, so a matrix the reading replaces goes."""

    def __init__(self):
        self._made = []

    def empty(self, shape, dtype):
        dtype = np.dtype(dtype)
        fd = os.memfd_create("velmot-features", os.MFD_CLOEXEC)
        size = max(int(np.prod(shape)) * dtype.itemsize, 1)
        os.ftruncate(fd, size)
        # Not populated: pages are made as the reading fills them, while it frees the table's.
        array = np.ndarray(shape, dtype, buffer=mmap.mmap(fd, size), order="F")
        weakref.finalize(array, os.close, fd)
        self._made.append((fd, weakref.ref(array)))
        return array

    def file_of(self, matrix):
        """The memory file holding matrix, copied into one if the reading
        made it elsewhere (the row reader's path)."""
        for fd, made in self._made:
            if made() is matrix:
                return fd
        self._copy = self.empty(matrix.shape, matrix.dtype)  # held: its file closes with it
        self._copy[...] = matrix
        return self._made[-1][0]


def _read_and_send(read, channel):
    """The child's whole life: it never returns into the caller's code."""
    status = 1
    try:
        signal.signal(signal.SIGINT, signal.SIG_DFL)  # Ctrl-C ends it without a traceback
        _one_heap()
        shared = _SharedArrays()
        fds = []
        try:
            matrix, rest = read(shared.empty)
            fds = [shared.file_of(matrix)]
            message = pickle.dumps(("result", matrix.shape, matrix.dtype.str, rest))
        except Exception as error:
            message = pickle.dumps(("error", _picklable(error)))
        socket.send_fds(channel, [_LENGTH.pack(len(message))], fds)
        channel.sendall(message)
        status = 0
    finally:
        os._exit(status)


def _one_heap():
    """Makes the C library give every thread of this process one heap: a
    heap per thread would keep the blocks each of the reading's threads
    freed for that thread alone (the 500,000 x 20 CSV file: 170 MiB at the
    parse's peak against 180-205)."""
    try:
        import ctypes

        ctypes.CDLL(None).mallopt(_M_ARENA_MAX, 1)
    except (OSError, AttributeError):
        pass  # not the GNU C library


def _picklable(error):
    try:
        pickle.loads(pickle.dumps(error))
        return error
    except Exception:
        return RuntimeError(str(error))


def _received(channel):
    head, fds, _, _ = socket.recv_fds(channel, _LENGTH.size, 1)
    try:
        head += _exactly(channel, _LENGTH.size - len(head))
        kind, *content = pickle.loads(_exactly(channel, _LENGTH.unpack(head)[0]))
        if kind == "error":
            raise content[0]
        shape, dtype, rest = content
        size = max(int(np.prod(shape)) * np.dtype(dtype).itemsize, 1)
        return np.ndarray(shape, dtype, buffer=_mapped(fds[0], size), order="F"), rest
    finally:
        for fd in fds:
            os.close(fd)


def _mapped(fd, size):
    # The child's pages, mapped whole at once: cheaper than a fault per page as the fit reads them.
    return mmap.mmap(fd, size, flags=mmap.MAP_SHARED | getattr(mmap, "MAP_POPULATE", 0))


def _exactly(channel, size):
    parts = []
    while size > 0:
        part = channel.recv(min(size, 1 << 20))
        if not part:
            raise OSError("the process reading the data file ended without a result")
        parts.append(part)
        size -= len(part)
    return b"".join(parts)


def _stop(pid):
    try:
        os.kill(pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
