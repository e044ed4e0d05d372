"""The lab: the controller simulator, the runner that puts a lab together,
and the pieces the end-to-end tests and the bench share with them.

Its programs run as modules from the top of the source tree, where this
package is found: `python3 -m lab.run`, `python3 -m lab.ctl devices`."""

import os
import sys

# The top of the source tree: device/ (the switch's files) is found from it,
# and a lab program started in another process runs from it.
SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def program(name, python=None):
    """The command line that runs lab module `name` as a program; start it
    with cwd=SOURCE so that the package is found."""
    return [python or sys.executable, "-m", f"{__name__}.{name}"]
