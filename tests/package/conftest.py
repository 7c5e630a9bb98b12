"""Makes the simulator importable for the tests of what is packaged."""

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))
