"""Builds the extension kestrel._kestrel with the project's own CMake build (the same
compiler flags as the commands, so the same bits), then lets setuptools package it.

    python3 -m venv --system-site-packages venv && venv/bin/pip install --no-build-isolation .
"""
import os
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = os.path.dirname(os.path.abspath(__file__))


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build = os.path.join(os.path.abspath(self.build_temp), "cmake")
        subprocess.check_call([
            "cmake", "-S", ROOT, "-B", build, "-DCMAKE_BUILD_TYPE=Release",
            "-DKESTREL_BUILD_TESTS=OFF", "-DKESTREL_BUILD_BENCH=OFF", "-DKESTREL_BUILD_ANA=OFF",
            "-DKESTREL_BUILD_PYTHON=ON", f"-DPython3_EXECUTABLE={sys.executable}"])
        subprocess.check_call(["cmake", "--build", build, "--target", "kestrel_python", "-j2"])
        built = os.path.join(build, "python", "kestrel", os.path.basename(self.get_ext_filename(ext.name)))
        target = self.get_ext_fullpath(ext.name)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        shutil.copyfile(built, target)


# Everything setuptools writes goes to build-python/, out of the source tree and of the
# CMake build directory build/ that the README uses.
os.makedirs(os.path.join(ROOT, "build-python"), exist_ok=True)
setup(ext_modules=[Extension("kestrel._kestrel", sources=[])], cmdclass={"build_ext": CMakeBuild},
      options={"build": {"build_base": "build-python"}, "egg_info": {"egg_base": "build-python"}})
