"""The lab with real 802.11, as far as it needs no virtual machine."""
import os
import pathlib
import subprocess

TREE = pathlib.Path(__file__).resolve().parents[2]


def test_a_tree_that_is_not_built_is_told_how(tmp_path):
    (tmp_path / "lumd").touch()
    ended = subprocess.run([TREE / "lab" / "air"], env={**os.environ, "LUMD_BIN_DIR": str(tmp_path)},
                           stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    assert ended.returncode == 1
    assert ended.stderr == f"air: no msgbusd, apd in {tmp_path}: ./run --air builds them\n"
