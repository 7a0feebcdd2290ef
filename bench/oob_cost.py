"""What out-of-bag estimates cost: W1 of bench/run.py fitted with and
without oob_score, alternating in one process, several rounds. The machine
may be shared: the spread is printed beside the medians, and the process's
CPU seconds (all its threads) beside the wall seconds, as they depend less
on what else runs.

    .venv/bin/python bench/oob_cost.py [--rounds 3] [--quick]

Nothing is asserted.
"""

import argparse
import os
import sys
import time

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import run as bench  # noqa: E402

import velmot  # noqa: E402


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--quick", action="store_true")
    args = parser.parse_args()
    (case,) = bench.build_cases(bench.QUICK if args.quick else bench.FULL, ("W1",))
    seconds = {False: [], True: []}
    cpu = {False: [], True: []}
    for round_ in range(args.rounds):
        for oob in (False, True):
            forest = velmot.RandomForestClassifier(
                n_estimators=case.n_trees, max_features=case.features_per_split, oob_score=oob, n_jobs=2, random_state=0
            )
            started, started_cpu = time.perf_counter(), time.process_time()
            forest.fit(case.X_train, case.y_train)
            seconds[oob].append(time.perf_counter() - started)
            cpu[oob].append(time.process_time() - started_cpu)
            extra = f"  oob_score_ {forest.oob_score_:.4f}" if oob else ""
            print(
                f"round {round_} oob_score={oob!s:5} fit {seconds[oob][-1]:6.2f} s, CPU {cpu[oob][-1]:6.2f} s{extra}",
                flush=True,
            )
    for what, figures in (("wall", seconds), ("CPU", cpu)):
        without, with_ = np.array(figures[False]), np.array(figures[True])
        print(
            f"{case.title}, {what}: fit without {np.median(without):.2f} s ({without.min():.2f}-{without.max():.2f}), "
            f"with oob_score {np.median(with_):.2f} s ({with_.min():.2f}-{with_.max():.2f}); "
            f"ratio of medians {np.median(with_) / np.median(without):.3f}, per round {np.round(with_ / without, 3)}"
        )


if __name__ == "__main__":
    main()
