"""Where the programs under test are."""
import os
import pathlib

ROOT = pathlib.Path(__file__).resolve().parents[3]


class Programs:
    """The build named by LUMD_BIN_DIR and LUMD_LIB_DIR, build/dev without them."""

    def __init__(self):
        self.bin = pathlib.Path(os.environ.get("LUMD_BIN_DIR", ROOT / "build/dev/bin"))
        self.lib = pathlib.Path(os.environ.get("LUMD_LIB_DIR", self.bin.parent / "lib"))

    def binary(self, name):
        path = self.bin / name
        assert path.exists(), f"{path} is not built"
        return path

    def library(self, name):
        path = self.lib / name
        assert path.exists(), f"{path} is not built"
        return path

    def preloaded(self, *libraries):
        """Environment of a program with these libraries before its own."""
        options = os.environ.get("ASAN_OPTIONS", "")
        return {"LD_PRELOAD": ":".join(str(self.library(name)) for name in libraries),
                "ASAN_OPTIONS": ":".join(filter(None, [options, "verify_asan_link_order=0"]))}

    def fast_clock(self, speed, *libraries):
        """Environment of a program whose clock runs `speed` times faster."""
        return {**self.preloaded("liblabclock.so", *libraries), "LAB_CLOCK_SPEED": str(speed)}
