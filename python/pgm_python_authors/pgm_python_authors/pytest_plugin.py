"""The bench as pytest fixtures: pytest -p pgm_python_authors.pytest_plugin.

    def test_change(pgm_python):
        seen = pgm_python.modify_bitstream(b"\\1\\2", "change.py", "change", ["--set"])
        assert seen.is_right, seen
        assert seen.value == b"\\2\\1"

What a call gives is a bench.Seen. The operations and their values are those of operations.py.
"""

import os
import shutil

import pytest

from pgm_python_authors.bench import Bench, Installation, read_seconds


def pytest_addoption(parser):
    group = parser.getgroup("pgm_python")
    group.addoption("--pgm-python", metavar="FILE", default=None,
                    help="the Python that scripts run with: the one that the library is linked with")
    group.addoption("--pgm-python-timeout", metavar="SECONDS", type=read_seconds, default=60.0,
                    help="how long a call may take")


@pytest.fixture(scope="session")
def pgm_python(request):
    """Calls functions of the installation that the environment names, or of scripts that the test names."""
    return Bench(Installation.from_environment(), request.config.getoption("--pgm-python"),
                 request.config.getoption("--pgm-python-timeout"))


class Scratch(Bench):
    """A bench with an installation of its own, in which a test puts its scripts."""

    def write(self, folder, name, source):
        """Writes a script; folder is "common", "unshipped", "network", "database" or "source" (modules that scripts
        share). Returns its path."""
        place = self.installation.common + "/python/source"
        if folder != "source":
            place = self.installation.folder(folder)
        os.makedirs(place, exist_ok=True)
        path = "%s/%s" % (place, name)
        with open(path, "w", encoding="utf-8") as stream:
            stream.write(source)
        return path


@pytest.fixture
def pgm_python_scratch(request, tmp_path):
    """A Scratch: an empty installation with the module pgm_python_reasons."""
    folder = str(tmp_path).replace(os.sep, "/")
    installation = Installation(folder + "/common/programmer", folder + "/unshipped/programmer", folder + "/bin")
    os.makedirs(installation.common + "/python/source")
    # It is installed beside this package.
    reasons = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "pgm_python_reasons.py")
    if os.path.exists(reasons):
        shutil.copy(reasons, installation.common + "/python/source")
    return Scratch(installation, request.config.getoption("--pgm-python"),
                   request.config.getoption("--pgm-python-timeout"))
