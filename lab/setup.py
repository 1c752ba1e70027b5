"""What pyproject.toml cannot say: files from elsewhere in the tree go into the package."""
import pathlib
import re
import shutil
import sys

from setuptools import setup
from setuptools.command.build_py import build_py

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
from labtalk.resources import INSTALLED, PLACES, TREE  # noqa: E402


class BuildWithData(build_py):
    """The modules, and everything that labtalk.resources knows."""

    def find_package_modules(self, package, package_dir):
        return [found for found in super().find_package_modules(package, package_dir)
                if found[1] != "setup"]

    def run(self):
        super().run()
        data = pathlib.Path(self.build_lib) / "labtalk" / INSTALLED.name
        for name, place in PLACES.items():
            copy = shutil.copytree if place.is_dir() else shutil.copy
            target = data / name
            if target.is_dir():
                shutil.rmtree(target)
            data.mkdir(parents=True, exist_ok=True)
            copy(place, target)


def version():
    """lumd's own."""
    text = (TREE / "CMakeLists.txt").read_text(encoding="utf-8")
    return re.search(r"project\(lumd VERSION ([\d.]+)", text).group(1)


setup(version=version(), cmdclass={"build_py": BuildWithData})
