"""A warning, once per process, where threads cannot help after a fork.

The OpenMP thread pool does not survive ``fork()``. In a process forked after
velmot ran calls on several threads (``os.fork()``, or a ``multiprocessing``
pool with the fork start method), the compiled module runs the threads' shares
of each call one after another on the calling thread: the results are the
same, but there is no speed-up. ``threads_for_call`` records calls on several
threads and warns once in such a child.
"""

import os
import warnings

_ran_threads = False
_forked_after_threads = False
_warned = False


def _after_fork_in_child():
    global _forked_after_threads, _warned
    _forked_after_threads = _forked_after_threads or _ran_threads
    _warned = False


os.register_at_fork(after_in_child=_after_fork_in_child)


def threads_for_call(n_threads):
    """Return n_threads for a module call, noting that it runs threads; warn
    once if this process was forked after threads ran."""
    global _ran_threads, _warned
    if n_threads > 1:
        if _forked_after_threads and not _warned:
            _warned = True
            warnings.warn(
                f"this process was forked after velmot ran threads, which do not survive a fork: "
                f"n_jobs={n_threads} runs its {n_threads} shares one after another here (same results, "
                f"no speed-up); start worker processes with 'spawn' or 'forkserver' to use threads in them",
                RuntimeWarning,
                stacklevel=3,
            )
        _ran_threads = True
    return n_threads
