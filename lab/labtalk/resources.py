"""Files that the lab needs beside its modules: in the tree each in its own place, in an installed
lab together below data/, where setup.py puts them."""
import pathlib

TREE = pathlib.Path(__file__).resolve().parents[2]
INSTALLED = pathlib.Path(__file__).resolve().parent / "data"
PLACES = {
    "schemas": TREE / "schemas",
    "scenarios": TREE / "lab" / "scenarios",
    "bin": TREE / "lab" / "bin",
    "msgbus_modules.h": TREE / "platform" / "msgbus" / "include" / "msgbus_modules.h",
    "msgbusd.conf": TREE / "packaging" / "msgbusd.conf",
}
IS_INSTALLED = INSTALLED.is_dir()
# Debian's package libjs-d3.
D3 = pathlib.Path("/usr/share/javascript/d3/d3.min.js")


def resource(name: str) -> pathlib.Path:
    """Where a file or folder of PLACES is."""
    return INSTALLED / name if IS_INSTALLED else PLACES[name]
