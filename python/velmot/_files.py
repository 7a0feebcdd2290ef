"""Writing files so that a failure never leaves a damaged or partial one.

A file is written whole to a temporary file beside its target and renamed
onto it: the rename is atomic, so the target holds either its previous
contents or the new ones, never a mix, and a failed write (disk full, a
signal) leaves the previous file untouched.
"""

import os
import stat
import tempfile


def atomic_write(path, write):
    """Call ``write(temp_path)``, then rename the temporary file onto ``path``.

    The temporary file lies in the target's folder (a rename across file
    systems would not be atomic) and is removed on any failure, interrupts
    included. The result has the mode an ordinary ``open(path, "w")`` would
    give: an existing file's mode, otherwise 0o666 less the umask.

    Raises
    ------
    FileNotFoundError
        If the target's folder does not exist.
    FileExistsError
        If the target exists and is not a regular file (a folder, a device).
    """
    # A symbolic link is written through: its target is what gets replaced.
    target = os.path.realpath(os.fspath(path))
    folder = os.path.dirname(target)
    if not os.path.isdir(folder):
        raise FileNotFoundError(f"cannot write {os.fspath(path)}: the folder {folder} does not exist")
    # Renaming over a device, a folder or a pipe would replace it with a
    # plain file (as root, /dev/null included).
    if os.path.lexists(target) and not os.path.isfile(target):
        raise FileExistsError(f"cannot write {os.fspath(path)}: it exists and is not a regular file")
    mode = _mode_for(target)
    fd, temp = tempfile.mkstemp(dir=folder, prefix=".velmot-", suffix=os.path.splitext(target)[1])
    try:
        os.close(fd)
        write(temp)
        os.chmod(temp, mode)
        os.replace(temp, target)
    except BaseException:
        if os.path.lexists(temp):
            os.unlink(temp)
        raise


def _mode_for(path):
    try:
        return stat.S_IMODE(os.stat(path).st_mode)
    except FileNotFoundError:
        return 0o666 & ~_umask()


def _umask():
    # The umask can only be read by setting it; set it straight back.
    current = os.umask(0o022)
    os.umask(current)
    return current
