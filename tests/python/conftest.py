import tempfile

import pytest

import varkel

MISSING = (2, 29)  # module 2, board 0, chip index 4


@pytest.fixture(scope="module")
def sim():
    with varkel.Simulator("quad", missing_chips=[MISSING]) as s:
        yield s


@pytest.fixture
def det(sim):
    with varkel.Detector("quad") as d:
        d.connect(sim)
        yield d


@pytest.fixture
def workdir():
    # Inside the test's TMPDIR, and removed: nothing may be left there.
    with tempfile.TemporaryDirectory() as d:
        yield d
