"""The module frame: numpy import checks and the generator-pool controls."""

import os
import subprocess
import sys
import textwrap

import pytest

import PyVelmot_wrap as wrap
from module_helpers import runtime_error


def run_import_with_fake_multiarray(fake_setup):
    """Imports the module in a fresh interpreter whose numpy.core.multiarray
    is replaced by a fake; returns (returncode, stdout, stderr)."""
    code = textwrap.dedent(
        f"""
        import sys, types
        fake = types.ModuleType("numpy.core.multiarray")
        {fake_setup}
        import numpy.core
        sys.modules["numpy.core.multiarray"] = fake
        try:
            import PyVelmot_wrap
        except ImportError as e:
            print("ImportError:", e)
        """
    )
    return subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, env=os.environ.copy())


@pytest.mark.parametrize(
    "fake_setup, printed",
    [
        ("pass", "AttributeError: _ARRAY_API not found"),
        ("fake._ARRAY_API = 5", "RuntimeError: _ARRAY_API is not PyCapsule object"),
    ],
)
def test_numpy_import_failures_print_the_cause_then_raise_import_error(fake_setup, printed):
    result = run_import_with_fake_multiarray(fake_setup)
    assert "ImportError: numpy.core.multiarray failed to import" in result.stdout
    assert printed in result.stderr


def test_pool_controls_take_one_positional_argument_of_the_right_type():
    assert wrap.set_seed(2**32 + 5) == 0.0
    assert wrap.init_pool(b"/dev/urandom") == 0.0
    # Text stops at the first NUL, as a C string would.
    assert wrap.init_pool("/dev/urandom\0ignored") == 0.0
    for call, error in [
        (lambda: wrap.set_seed(seed=1), TypeError),
        (lambda: wrap.set_seed("1"), TypeError),
        (lambda: wrap.set_seed(2**70), OverflowError),
        (lambda: wrap.init_pool(3), TypeError),
        (wrap.init_pool, TypeError),
    ]:
        with pytest.raises(error):
            call()


def test_unreadable_seed_file_is_a_runtime_error_with_the_library_text(tmp_path):
    short = tmp_path / "short"
    short.write_bytes(b"\x01" * 100)  # 32 generators need 1024 bytes
    for name, shown in (("/no/such/seed/file", "/no/such/seed/file"), (os.fsencode(short) + b"\0tail", short)):
        assert runtime_error(wrap.init_pool, name) == f"error: unable to read from random number file {shown}\n"
    wrap.set_seed(1)  # leave a complete pool behind for later tests
