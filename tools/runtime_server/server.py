"""Script entry point: `python3 tools/runtime_server/server.py serve|dump|sign`.

Puts the directory above this package on the import path so the package can
be run from any working directory without installing it.
"""

import os
import sys

# The script's own directory would come first on the path and let its modules
# shadow others by name; the package is imported through its parent instead.
sys.path[0] = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

from runtime_server.cli import main  # noqa: E402

if __name__ == "__main__":
    sys.exit(main())
