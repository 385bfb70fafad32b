"""cmake --install gives a usable library: examples/c/resynth.c builds against the installed
tree through pkg-config and through find_package(kestrel), and the shared library exports
exactly the routines its headers declare."""
import os
import re
import shutil
import subprocess

import pytest

from conftest import BINARY_DIR, SOURCE_DIR, same_bytes, wav

EXAMPLE = os.path.join(SOURCE_DIR, "examples", "c", "resynth.c")
REC = wav("f_vctk_p225_001")


def sh(*args, env=None, cwd=None):
    r = subprocess.run([str(a) for a in args], capture_output=True, text=True, env=env, cwd=cwd, timeout=300)
    assert r.returncode == 0, (args, r.stdout, r.stderr)
    return r.stdout


@pytest.fixture(scope="module")
def prefix(tmp_path_factory):
    p = tmp_path_factory.mktemp("prefix")
    sh("cmake", "--install", BINARY_DIR, "--prefix", p)
    return p


def libdir(prefix):
    return os.path.dirname(next(os.path.join(d, "libkestrel.so") for d, _, files in os.walk(prefix)
                                if "libkestrel.so" in files))


def test_installed_layout(prefix):
    lib = libdir(prefix)
    for f in ("libkestrel.a", "libkestrel.so", "pkgconfig/kestrel.pc", "cmake/kestrel/kestrelConfig.cmake"):
        assert os.path.exists(os.path.join(lib, f)), f
    headers = os.listdir(os.path.join(prefix, "include", "kestrel"))
    assert {"ccanalysis.h", "pitchanalysis.h", "wavm1616io.h", "kestrel_export.h"} <= set(headers)
    assert not {"decoder.h", "analyser.h", "drivercommon.h"} & set(headers)  # internal C++


def test_shared_library_exports_only_the_declared_routines(prefix):
    declared = set()
    incdir = os.path.join(prefix, "include", "kestrel")
    for h in os.listdir(incdir):
        with open(os.path.join(incdir, h)) as f:
            declared |= set(re.findall(r"^KESTREL_API[^(;]*?\b(\w+)\s*\(", f.read(), re.M))
    out = sh("nm", "-D", "--defined-only", os.path.join(libdir(prefix), "libkestrel.so"))
    exported = {line.split()[-1] for line in out.splitlines() if line.strip()}
    assert len(declared) > 100 and exported == declared, (exported ^ declared)


@pytest.fixture(scope="module")
def reference(tmp_path_factory):
    """The example as the build tree links it."""
    out = tmp_path_factory.mktemp("ref") / "ref.wav"
    sh(os.path.join(BINARY_DIR, "kestrel_example_resynth"), REC, out)
    return out


def check_resynth(program, reference, tmp_path, env=None):
    out = tmp_path / (os.path.basename(str(program)) + ".wav")
    assert "410 frames, 32881 samples written" in sh(program, REC, out, env=env)
    assert same_bytes(out, reference)


def test_example_builds_with_pkg_config(prefix, reference, tmp_path):
    env = dict(os.environ, PKG_CONFIG_PATH=os.path.join(libdir(prefix), "pkgconfig"))
    for static in (False, True):
        flags = sh("pkg-config", "--cflags", "--libs", *(["--static"] if static else []), "kestrel", env=env).split()
        prog = tmp_path / ("resynth_static" if static else "resynth_shared")
        if static:  # the archive, not the shared library beside it
            flags = [os.path.join(libdir(prefix), "libkestrel.a") if f == "-lkestrel" else f for f in flags]
        sh("cc", "-std=c99", "-o", prog, EXAMPLE, *flags)
        assert ("libkestrel.so" in sh("readelf", "-d", prog)) != static
        check_resynth(prog, reference, tmp_path, env=dict(env, LD_LIBRARY_PATH=libdir(prefix)))


def test_example_builds_with_find_package(prefix, reference, tmp_path):
    src = tmp_path / "src"
    src.mkdir()
    shutil.copy(EXAMPLE, src / "resynth.c")
    (src / "CMakeLists.txt").write_text(
        "cmake_minimum_required(VERSION 3.16)\nproject(resynth C)\nfind_package(kestrel 0.99 REQUIRED)\n"
        "add_executable(resynth resynth.c)\ntarget_link_libraries(resynth PRIVATE kestrel::kestrel)\n")
    build = tmp_path / "build"
    sh("cmake", "-S", src, "-B", build, f"-DCMAKE_PREFIX_PATH={prefix}")
    sh("cmake", "--build", build)
    check_resynth(build / "resynth", reference, tmp_path)
