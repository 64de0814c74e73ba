"""What the wheel takes from the build: the library's version, from the environment variable
DATAEXCHANGE_VERSION or else the project() line of the source tree's CMakeLists.txt, and the DLLs
in the package folder. With DLLs it is the win_amd64 wheel, they and their licence texts its
package data: its platform tag is set while it stays a pure wheel, py3-none-win_amd64, for ctypes
needs no particular interpreter (marked impure, it would be tagged for the one that builds it,
cp311-cp311). Without, it is the pure wheel that finds an installed library."""
import glob
import os
import re

from setuptools import setup

HERE = os.path.dirname(os.path.abspath(__file__))


def version():
    given = os.environ.get("DATAEXCHANGE_VERSION")
    if given:
        return given
    with open(os.path.join(HERE, "..", "..", "CMakeLists.txt"), encoding="utf-8") as cmake:
        return re.search(r"project\(dataExchange VERSION (\S+)", cmake.read()).group(1)


windows = bool(glob.glob(os.path.join(HERE, "dataexchange", "*.dll")))
setup(version=version(), packages=["dataexchange"],
      package_data={"dataexchange": ["*.dll", "licenses/*/*"]},
      options={"bdist_wheel": {"plat_name": "win_amd64"}} if windows else {})
