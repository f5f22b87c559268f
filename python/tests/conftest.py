import os
import sys

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.dirname(HERE))


@pytest.fixture(scope="session")
def data_dir():
    """Graphs written by the build's make_test_graphs; VA_TEST_DATA names the
    folder, else the release build's."""
    path = os.environ.get("VA_TEST_DATA") or os.path.join(
        os.path.dirname(os.path.dirname(HERE)), "build", "release", "test_data")
    if not os.path.exists(os.path.join(path, "echo_vector.pb")):
        pytest.fail("test graphs not found in %s; build the project (target test_data) "
                    "or set VA_TEST_DATA" % path)
    return path


@pytest.fixture
def graph(data_dir):
    return lambda name: os.path.join(data_dir, name)
