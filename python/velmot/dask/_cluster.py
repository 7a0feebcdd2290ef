"""Talking to the cluster: futures that never outlive a failed fit, results
as they finish, and whether scattered data was lost with a worker."""

import contextlib
from concurrent.futures import CancelledError

import dask
from distributed import as_completed


@contextlib.contextmanager
def cancelled_on_failure(client, futures):
    """Cancel the futures (filled in within the block) if anything, an error
    or KeyboardInterrupt, leaves the block: no task outlives a failed fit."""
    try:
        yield
    except BaseException:
        client.cancel(futures)
        raise


def finished(futures):
    """(position in futures, result) of each future, as they finish.

    A task's error is raised; so is a cancellation, which as_completed would
    otherwise hand over in place of the result.
    """
    position = {future.key: index for index, future in enumerate(futures)}
    for future, result in as_completed(futures, with_results=True):
        if future.status == "cancelled":
            raise result if isinstance(result, CancelledError) else CancelledError(f"{future.key} was cancelled")
        yield position[future.key], result


def lost(client, data):
    """Whether some of the scattered data no longer exists on any worker."""
    if any(future.status != "finished" for future in data):
        return True
    return not all(client.who_has(data).values())


def computed(client, *values):
    """values with each Dask collection among them computed, all at once so
    that collections sharing a source read it once."""
    lazy = [value for value in values if dask.is_dask_collection(value)]
    futures = []
    with cancelled_on_failure(client, futures):
        futures.extend(client.compute(lazy))
        results = iter(client.gather(futures))
    return [next(results) if dask.is_dask_collection(value) else value for value in values]
