"""Fits and predicts one library on one prepared case, in this process alone,
so that the peak resident memory it reports is that library's own.

    python bench/peers/harness.py PEER CASE_DIR RESULT_JSON

PEER names a module beside this file (velmot_rf, sklearn_rf, ...) that
provides ``describe()``, ``fit(X, y, config)`` and ``predict(model, X)``,
and may provide ``mean_path_length(model, X)``: the mean number of splits on
a training instance's way down the trees, taken after the timings, which
tells how much work an exact learner's trees demand at this size.
CASE_DIR holds X_train.npy, y_train.npy, X_test.npy and config.json written
by bench/run.py. The predicted classes go to CASE_DIR/pred_PEER.npy, the
figures to RESULT_JSON; accuracy is computed by run.py, the same for all.
"""

import gc
import importlib
import json
import os
import sys
import time

import numpy as np


def status_kib(field):
    """A memory figure of this process from /proc/self/status, in KiB."""
    with open("/proc/self/status") as status:
        for line in status:
            if line.startswith(field + ":"):
                return int(line.split()[1])
    raise RuntimeError(f"{field} not in /proc/self/status")


def reset_peak_rss():
    """Restarts the kernel's peak-RSS counter (VmHWM) at the current RSS, so
    that the peak read after fit belongs to fit alone; False where the kernel
    refuses, and the peak then also covers imports and data loading."""
    try:
        with open("/proc/self/clear_refs", "w") as clear_refs:
            clear_refs.write("5")
        return True
    except OSError:
        return False


def main(peer_name, case_dir, result_path):
    peer = importlib.import_module(peer_name)
    with open(os.path.join(case_dir, "config.json")) as f:
        config = json.load(f)
    X_train = np.load(os.path.join(case_dir, "X_train.npy"))
    y_train = np.load(os.path.join(case_dir, "y_train.npy"))
    X_test = np.load(os.path.join(case_dir, "X_test.npy"))

    gc.collect()
    rss_before_fit = status_kib("VmRSS")
    peak_was_reset = reset_peak_rss()
    start, start_cpu = time.perf_counter(), time.process_time()
    model = peer.fit(X_train, y_train, config)
    fit_seconds = time.perf_counter() - start
    fit_cpu_seconds = time.process_time() - start_cpu
    fit_peak_rss = status_kib("VmHWM")

    start = time.perf_counter()
    predictions = peer.predict(model, X_test)
    predict_seconds = time.perf_counter() - start

    regression = config.get("task") == "regression"
    predicted = np.asarray(predictions).astype(np.float64 if regression else np.int64)
    np.save(os.path.join(case_dir, f"pred_{peer_name}.npy"), predicted)
    result = {
        "fit_seconds": fit_seconds,
        # CPU of all the process's threads: on a shared machine, steadier
        # than wall time for comparing one library with itself.
        "fit_cpu_seconds": fit_cpu_seconds,
        "predict_seconds": predict_seconds,
        "fit_peak_rss_mib": fit_peak_rss / 1024,
        "rss_before_fit_mib": rss_before_fit / 1024,
        "peak_is_fit_only": peak_was_reset,
        "task": config.get("task", "classification"),
        **peer.describe(),
    }
    if hasattr(peer, "mean_path_length"):
        result["mean_path_length"] = float(peer.mean_path_length(model, X_train))
    with open(result_path, "w") as f:
        json.dump(result, f)


if __name__ == "__main__":
    main(*sys.argv[1:])
