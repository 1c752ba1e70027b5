"""Fixtures of the tests on air: one virtual machine for all of them."""
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "lab"))
