"""The builds for Android, as far as they can be held to anything without Android.

    android_build.py CASE SOURCE_DIR BUILD_DIR CXX CMAKE
"""

import concurrent.futures
import json
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import tempfile

CASE, SOURCE, BUILD, CXX, CMAKE = sys.argv[1], *map(pathlib.Path, sys.argv[2:6])


def run(*command, **more):
    return subprocess.run([str(word) for word in command], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False, **more)


def check(condition, what):
    if not condition:
        sys.exit(f"{CASE}: {what}")


def blueprint():
    """Android.bp holds, and each way in which it can rot is told in a line."""
    checker = SOURCE / "scripts/check-android-bp"
    commands = BUILD / "compile_commands.json"
    good = run(checker, commands)
    check(good.returncode == 0, good.stdout)
    text = (SOURCE / "Android.bp").read_text(encoding="utf-8")
    for old, new, complaint in (
            ('        "linker/sharedlibs.cpp",\n', "", "linker/sharedlibs.cpp is missing"),
            ('"platform/android/paths.cpp"', '"platform/linux/paths.cpp"',
             "platform/linux/paths.cpp is not a source"),
            ('"tests/platform/thread_test.cpp"', '"tests/platform/gone.cpp"',
             "tests/platform/gone.cpp does not exist"),
            ('        "-Wshadow",\n', "", "cflags lack -Wshadow"),
            ('"-fno-plt"', '"-fno-plt", "-ffast-math"', "cflags have -ffast-math"),
            ('        "-Wl,-z,now",\n', "", "ldflags lack -Wl,-z,now"),
            ('    cppflags: ["-fexceptions"],\n', "", "cppflags are not -fexceptions"),
            ('defaults: ["memleak_test_defaults"]', 'defaults: ["gone"]', "no defaults named gone"),
            ("    ],\n    // Its exceptions", "    // Its exceptions", "expected")):
        check(old in text, f"Android.bp has no {old!r} to break")
        with tempfile.NamedTemporaryFile("w", suffix=".bp", encoding="utf-8") as broken:
            broken.write(text.replace(old, new, 1))
            broken.flush()
            bad = run(checker, commands, broken.name)
        check(bad.returncode == 1 and complaint in bad.stdout, f"{complaint!r} not told:\n{bad.stdout}")


def platform_headers():
    """The subsystems compile against the platform's own headers, not only against the stand-ins."""
    headers = pathlib.Path("/usr/include/android")
    check((headers / "unwindstack/Unwinder.h").is_file(),
          "the platform's headers are missing: run scripts/install-packages")
    sources = [file for folder in ("sigmux", "linker", "plthooks", "tracker", "backtrace", "records",
                                   "platform/unwindstack")
               for file in sorted((SOURCE / folder).glob("*.cpp"))]
    check(len(sources) > 20, "the sources were not found")
    flags = ["-std=c++17", "-Wall", "-Wextra", "-Wshadow", "-Wconversion", "-Werror", "-DANDROID",
             "-fsyntax-only", f"-I{SOURCE}/tests/android/platform_headers", f"-I{SOURCE}",
             f"-I{SOURCE}/arch/x86_64/include", "-isystem", headers]
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for file, result in zip(sources, pool.map(lambda file: run(CXX, *flags, file), sources)):
            check(result.returncode == 0, f"{file}:\n{result.stdout}")


def dressed_headers():
    """A sysroot of GNU headers dressed as Android's, with LLVM's C++ library."""
    root = BUILD / "android-headers"
    shutil.rmtree(root, ignore_errors=True)
    include = root / "usr/include"
    shutil.copytree(SOURCE / "tests/android/bionic", include / "aarch64-linux-android")
    (include / "c++").mkdir()
    library = next((SOURCE / "build/libc++").glob("usr/lib/llvm-*/include/c++/v1"), None)
    check(library, "LLVM's C++ library is missing: "
          "run scripts/unpack-packages build/libc++ libc++-14-dev")
    (include / "c++/v1").symlink_to(library)
    for header in pathlib.Path("/usr/aarch64-linux-gnu/include").iterdir():
        if header.name != "c++":
            (include / header.name).symlink_to(header)
    return root


def sources():
    """What the preset builds is sound with clang, its C++ library and Android's types."""
    build = BUILD / "android-sources"
    configured = run(CMAKE, "--preset", "android-arm64", "-B", build, "-DMEMLEAK_WARNINGS_ARE_ERRORS=ON",
                     f"-DANDROID_SYSROOT={dressed_headers()}", cwd=SOURCE)
    check(configured.returncode == 0, configured.stdout)
    entries = json.loads((build / "compile_commands.json").read_text(encoding="utf-8"))
    names = {pathlib.Path(entry["file"]).name for entry in entries}
    for name in ("MallocMemTrack.cpp", "log.cpp", "unwinder.cpp", "device_main.cpp", "trampoline.S"):
        check(name in names, f"the preset does not build {name}")

    def syntax(entry):
        words = shlex.split(entry["command"])
        return entry["file"], run(*words, "-fsyntax-only", cwd=entry["directory"])

    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for file, result in pool.map(syntax, entries):
            check(result.returncode == 0, f"{file}:\n{result.stdout}")


def stand_in_ndk(directory):
    """Enough of an NDK to configure with: its toolchain file sets what it needs, as the real one."""
    file = directory / "build/cmake/android.toolchain.cmake"
    file.parent.mkdir(parents=True)
    file.write_text("""
set(CMAKE_SYSTEM_NAME Android)
set(CMAKE_SYSTEM_VERSION 1)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ANDROID_ABI ANDROID_PLATFORM ANDROID_STL)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
foreach(language C CXX ASM)
  set(CMAKE_${language}_COMPILER clang)
  set(CMAKE_${language}_COMPILER_TARGET aarch64-linux-android29)
endforeach()
""", encoding="utf-8")


def preset():
    """Without Android's headers the preset says in one line what to set, and stops."""
    places = ("ANDROID_NDK", "ANDROID_SYSROOT")
    clean = {name: value for name, value in os.environ.items() if name not in places}
    for place, complaint in (
            ({}, r"Set ANDROID_NDK to .*, or ANDROID_SYSROOT to .*\."),
            ({"ANDROID_NDK": "/nowhere"}, r"ANDROID_NDK is '/nowhere', without .*: set it to .*\."),
            ({"ANDROID_SYSROOT": "/nowhere"}, r"ANDROID_SYSROOT is '/nowhere', without .*: set it.*")):
        with tempfile.TemporaryDirectory() as build:
            result = run(CMAKE, "--preset", "android-arm64", "-B", build, cwd=SOURCE,
                         env={**clean, **place})
        check(result.returncode != 0, "it went on")
        check(re.search(rf"^ *{complaint}$", result.stdout, re.MULTILINE), result.stdout)
        check(result.stdout.count("CMake Error") == 1, result.stdout)
    # An NDK given on the command line, and without the header of the controller's command line:
    # the library is built all the same.
    with tempfile.TemporaryDirectory() as directory:
        ndk = pathlib.Path(directory) / "ndk"
        stand_in_ndk(ndk)
        result = run(CMAKE, "--preset", "android-arm64", "-B", f"{directory}/build",
                     f"-DANDROID_NDK={ndk}", "-DMEMLEAK_CLI11_INCLUDE=MEMLEAK_CLI11_INCLUDE-NOTFOUND",
                     "-DCMAKE_DISABLE_FIND_PACKAGE_Protobuf=ON", cwd=SOURCE, env=clean)
        check(result.returncode == 0, result.stdout)


{"blueprint": blueprint, "platform_headers": platform_headers, "sources": sources,
 "preset": preset}[CASE]()
