"""The version is that of the project, which is in one place."""

import pathlib
import re

from setuptools import setup

CMAKE = pathlib.Path(__file__).resolve().parents[1] / "CMakeLists.txt"
setup(version=re.search(r"project\(orvex VERSION ([0-9.]+)", CMAKE.read_text("ascii"))[1])
