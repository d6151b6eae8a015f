"""Entry point for `python3 -m runtime_server` (with tools/ on the path)."""

import sys

from .cli import main

sys.exit(main())
