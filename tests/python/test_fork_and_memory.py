"""A process forked after threads ran learns and predicts as its parent (the
OpenMP thread pool does not survive fork); running out of memory is an error,
not the end of the interpreter."""

import hashlib
import multiprocessing
import subprocess
import sys
import warnings

import numpy as np
import pytest

import PyVelmot_wrap as wrap
from velmot import RandomForestClassifier

X = np.random.default_rng(5).random((4, 300))
Y = (X[0] * 3).astype(np.int32)


def module_digest(threads):
    wrap.set_seed(11)
    trees, importances = wrap.learn_di_gini(X, Y, 3, 9, 1.0, 2, 0, threads, 1)
    labels, proba = np.zeros(300, np.int32), np.zeros((300, 3))
    wrap.test_di(X, trees, 3, labels, threads)
    wrap.prob_dd(X, trees, 3, proba, threads)
    return hashlib.sha256(b"".join(a.tobytes() for a in [*trees, importances, labels, proba])).hexdigest()


def package_results():
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        forest = RandomForestClassifier(n_estimators=8, n_jobs=2, random_state=0).fit(X.T, Y)
        result = forest.predict_proba(X.T).tobytes() + forest.predict(X.T).tobytes()
    return result, [str(w.message) for w in caught if "forked" in str(w.message)]


def in_forked_worker(function, *args):
    """function(*args) in a process forked from this one (which leaves by
    os._exit); a hang there fails the test instead of hanging it."""
    with multiprocessing.get_context("fork").Pool(1) as pool:
        return pool.apply_async(function, args).get(timeout=120)


@pytest.mark.parametrize("threads", [2, 3])
def test_a_process_forked_after_threads_ran_learns_and_predicts_as_its_parent(threads):
    expected = module_digest(threads)
    assert in_forked_worker(module_digest, threads) == expected


def test_the_package_warns_once_in_such_a_process():
    expected, parent_warnings = package_results()
    result, child_warnings = in_forked_worker(package_results)
    assert result == expected and parent_warnings == [] and len(child_warnings) == 1
    assert "n_jobs=2" in child_warnings[0]


# Under a limit of 256 MiB more address space: a bootstrap sample of 10**9
# instances fails inside the threads, 3,000,000 trees are refused up front.
OUT_OF_MEMORY = """
import resource, numpy as np, PyVelmot_wrap as wrap
X = np.random.default_rng(0).random((3, 100)); y = (X[0] > 0.5).astype(np.int32)
wrap.set_seed(1); wrap.learn_di_gini(X, y, 2, 4, 1.0, 2, 0, 2, 1)
used = int(open("/proc/self/statm").read().split()[0]) * resource.getpagesize()
resource.setrlimit(resource.RLIMIT_AS, (used + (256 << 20),) * 2)
for trees, sampling in [(4, 1e7), (3_000_000, 1.0)]:
    try:
        wrap.learn_di_gini(X, y, 2, trees, sampling, 2, 0, 2, 1)
    except RuntimeError as error:
        print(isinstance(error, MemoryError), error)
print(len(wrap.learn_di_gini(X, y, 2, 4, 1.0, 2, 0, 2, 1)[0]))
"""


def test_out_of_memory_is_an_error_not_an_abort():
    run = subprocess.run([sys.executable, "-c", OUT_OF_MEMORY], capture_output=True, text=True, timeout=120)
    assert run.returncode == 0, run.stderr
    lines = run.stdout.splitlines()
    assert lines[0] == "True std::bad_alloc" and lines[2] == "4"
    assert lines[1].startswith("False num_trees=3000000 cannot fit in the ") and "ulimit -v" in lines[1]
