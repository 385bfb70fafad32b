"""cmake --install gives a usable library: examples/c/resynth.c builds against the installed
tree through pkg-config (shared and static) and through find_package(kestrel), and the shared
library exports exactly the routines its headers declare."""
import os
import pathlib
import re

from conftest import BINARY_DIR, SOURCE_DIR, same_bytes, sh, wav

EXAMPLE = os.path.join(SOURCE_DIR, "examples", "c", "resynth.c")


def test_install_gives_the_headers_exports_and_a_buildable_example(tmp_path):
    p = tmp_path / "prefix"
    sh("cmake", "--install", BINARY_DIR, "--prefix", p)
    lib = next(d for d, _, files in os.walk(p) if "libkestrel.so" in files)
    incdir = os.path.join(p, "include", "kestrel")
    headers = set(os.listdir(incdir))
    assert {"ccanalysis.h", "wavm1616io.h", "kestrel_export.h"} <= headers
    assert not {"decoder.h", "analyser.h", "drivercommon.h"} & headers  # internal C++
    text = "".join(pathlib.Path(incdir, h).read_text() for h in headers)
    declared = set(re.findall(r"^KESTREL_API[^(;]*?\b(\w+)\s*\(", text, re.M))
    exported = {line.split()[-1] for line in sh("nm", "-D", "--defined-only", os.path.join(lib, "libkestrel.so")).splitlines()}
    assert len(declared) > 100 and exported == declared, (exported ^ declared)
    # examples/c/resynth.c through pkg-config (shared, static) and find_package, as the build tree's program.
    reference = tmp_path / "ref.wav"
    sh(os.path.join(BINARY_DIR, "kestrel_example_resynth"), wav("f_vctk_p225_001"), reference)
    env = dict(os.environ, PKG_CONFIG_PATH=os.path.join(lib, "pkgconfig"), LD_LIBRARY_PATH=lib)
    progs = []
    for static in (False, True):
        flags = sh("pkg-config", "--cflags", "--libs", *(["--static"] if static else []), "kestrel", env=env).split()
        if static:  # the archive, not the shared library beside it
            flags = [os.path.join(lib, "libkestrel.a") if f == "-lkestrel" else f for f in flags]
        progs.append(tmp_path / f"resynth{int(static)}")
        sh("cc", "-std=c99", "-o", progs[-1], EXAMPLE, *flags)
        assert ("libkestrel.so" in sh("readelf", "-d", progs[-1])) != static
    src = tmp_path / "src"
    src.mkdir()
    (src / "CMakeLists.txt").write_text(
        f"cmake_minimum_required(VERSION 3.16)\nproject(resynth C)\nfind_package(kestrel 0.99 REQUIRED)\n"
        f"add_executable(resynth {EXAMPLE})\ntarget_link_libraries(resynth PRIVATE kestrel::kestrel)\n")
    sh("cmake", "-S", src, "-B", tmp_path / "build", f"-DCMAKE_PREFIX_PATH={p}")
    sh("cmake", "--build", tmp_path / "build")
    for prog in progs + [tmp_path / "build" / "resynth"]:
        assert "410 frames, 32881 samples written" in sh(prog, wav("f_vctk_p225_001"), tmp_path / "o.wav", env=env)
        assert same_bytes(tmp_path / "o.wav", reference), prog
