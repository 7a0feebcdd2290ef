"""``python -m velmot``: the command line."""

import sys

from velmot.cli import main

sys.exit(main())
