# SPDX-License-Identifier: Apache-2.0
"""Tests of the builds for Android on a host without Android.

    android_build.py CASE SOURCE_DIR BUILD_DIR CXX CMAKE
"""

import concurrent.futures
import os
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import tempfile

CASE, SOURCE, BUILD, CXX, CMAKE = sys.argv[1], *map(pathlib.Path, sys.argv[2:6])
ANDROID_API = SOURCE / "platform/android_api"


def run(*command, **more):
    return subprocess.run([str(word) for word in command], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False, **more)


def check(condition, what):
    if not condition:
        sys.exit(f"{CASE}: {what}")


def platform_headers():
    """What uses the headers of a platform tree compiles with them."""
    headers = pathlib.Path("/usr/include/android")
    check((headers / "unwindstack/Unwinder.h").is_file(),
          "Android's headers are missing: run scripts/install-packages")
    folders = ("sigmux", "linker", "plthooks", "tracker", "backtrace", "records",
               "platform/unwindstack")
    uses = re.compile(r'#include ["<](unwindstack|utils|android-base)/')
    sources = [file for folder in folders for file in sorted((SOURCE / folder).rglob("*.cpp"))
               if any(uses.search(f.read_text(encoding="utf-8"))
                      for f in (file, file.with_suffix(".h")) if f.exists())]
    check(len(sources) > 5, "the sources were not found")
    with tempfile.TemporaryDirectory() as directory:
        # Debian does not package these headers.
        for name in ("async_safe/log.h", "private/bionic_malloc_dispatch.h",
                     "sys/system_properties.h"):
            header = pathlib.Path(directory) / name
            header.parent.mkdir()
            folder = ANDROID_API / ("ndk_include" if name.startswith("sys") else "include")
            header.symlink_to(folder / name)
        flags = ["-std=c++17", "-Wall", "-Wextra", "-Wshadow", "-Wconversion", "-Werror",
                 "-DANDROID", "-D__ANDROID__", "-fsyntax-only",
                 # Debian's libunwindstack is one release older.
                 "-DCreateProcessMemoryThreadCached=CreateProcessMemory",
                 f"-I{directory}", f"-I{SOURCE}", f"-I{SOURCE}/arch/x86_64/include",
                 "-isystem", headers]
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            results = pool.map(lambda file: run(CXX, *flags, file), sources)
            for file, result in zip(sources, results):
                check(result.returncode == 0, f"{file}:\n{result.stdout}")


def symbols(which, archives):
    """Names of undefined or defined symbols."""
    listed = run("aarch64-linux-gnu-nm", "-j", f"--{which}-only", *archives)
    return {line for line in listed.stdout.splitlines() if not line.endswith(":")}


def fake_ndk(root):
    """Creates a fake NDK and returns its sysroot.

    The headers are the GNU ones with the differences of bionic (tests/android/bionic). The C++
    library and the compiler runtime are LLVM's from Debian, marked for branch protection like those
    of an NDK. Android's libraries have the symbols of provided_symbols.txt and no code.
    """
    host = root / "toolchains/llvm/prebuilt/linux-x86_64"
    include, lib = host / "sysroot/usr/include", host / "sysroot/usr/lib/aarch64-linux-android"
    runtime = host / "lib64/clang/14.0.6/lib/linux"
    llvm, = (SOURCE / "build/llvm-arm64/usr/lib").glob("llvm-*")
    shutil.copytree(SOURCE / "tests/android/bionic", include / "aarch64-linux-android")
    for header in pathlib.Path("/usr/aarch64-linux-gnu/include").iterdir():
        (include / header.name).symlink_to(llvm / "include/c++" if header.name == "c++" else header)
    archives = {lib / "libc++_static.a": "libc++.a", lib / "libc++abi.a": "libc++abi.a",
                runtime / "aarch64/libunwind.a": "libunwind.a",
                runtime / "libclang_rt.builtins-aarch64-android.a":
                    "clang/14.0.6/lib/linux/libclang_rt.builtins-aarch64.a"}
    for directory in (lib / "29", runtime / "aarch64"):
        directory.mkdir(parents=True)
    note = root / "note"
    note.write_bytes(struct.pack("<3I4s4I", 4, 16, 5, b"GNU", 0xC0000000, 4, 3, 0))
    for archive, name in archives.items():
        run("aarch64-linux-gnu-objcopy", f"--add-section=.note.gnu.property={note}",
            "--set-section-flags=.note.gnu.property=alloc,readonly,data",
            "--set-section-alignment=.note.gnu.property=8", llvm / "lib" / name, archive)
    (lib / "29/libc++.a").write_text("INPUT(-lc++_static -lc++abi)")

    def make(output, language, text, *options):
        made = run("clang", "--target=aarch64-linux-android29", "-mbranch-protection=standard",
                   "-nostdlib", "-fuse-ld=lld", *options, f"-x{language}", "-",
                   "-o", lib / "29" / output, input=text)
        check(made.returncode == 0, made.stdout)

    # The GNU headers and Debian's archives use names that Android lacks.
    others = (symbols("undefined", archives) - symbols("defined", archives)
              | {"__isoc99_sscanf", "__sigsetjmp"})
    listed = (SOURCE / "platform/android/provided_symbols.txt").read_text(encoding="utf-8")
    for section in listed.split("\n[")[1:5]:
        soname, names = section.replace("]\n", ".so\n", 1).split("\n", 1)
        names = {*names.split(), *(others if soname == "libc.so" else ())}
        make(soname, "assembler", "".join(f".globl {name}\n{name}:\n" for name in names),
             "-shared", f"-Wl,-soname,{soname}")
    # Android's start files refer weakly to a function of emulated thread-local variables.
    for name in ("crtbegin_so.o", "crtend_so.o", "crtbegin_dynamic.o", "crtend_android.o"):
        make(name, "c", """
            __attribute__((weak, visibility("hidden"))) void __emutls_unregister_key(void);
            __attribute__((destructor)) static void close(void) {
              if (__emutls_unregister_key) __emutls_unregister_key();
            }""", "-c", "-fPIC")
    return host / "sysroot"


def library():
    """The preset builds library and controller with a fake NDK. The library passes its check."""
    build, ndk = BUILD / "android", BUILD / "android-ndk"
    for old in (ndk, build / "lib"):
        shutil.rmtree(old, ignore_errors=True)
    # Debian's archives ask for libpthread.
    environment = {**os.environ, "LDFLAGS": "-Wl,--no-dependent-libraries"}
    for command in ((CMAKE, "--preset", "android-arm64", "-B", build,
                     "-DMEMLEAK_WARNINGS_ARE_ERRORS=ON", f"-DANDROID_SYSROOT={fake_ndk(ndk)}",
                     # CLI11 and protobuf are for the controller on a host.
                     "-DMEMLEAK_CLI11_INCLUDE=MEMLEAK_CLI11_INCLUDE-NOTFOUND",
                     "-DCMAKE_DISABLE_FIND_PACKAGE_Protobuf=ON"),
                    (CMAKE, "--build", build),
                    (SOURCE / "scripts/check-library", build / "lib/libmemleak_tracker.so")):
        made = run(*command, cwd=SOURCE, env=environment)
        check(made.returncode == 0, made.stdout)


def preset():
    """The preset finds an NDK on the command line. Without one it prints what to set and stops."""
    places = ("ANDROID_NDK", "ANDROID_SYSROOT")
    clean = {name: value for name, value in os.environ.items() if name not in places}
    for place, message in (
            ({}, "Set ANDROID_NDK to .*, or ANDROID_SYSROOT to "),
            ({"ANDROID_NDK": "/nowhere"}, "ANDROID_NDK is '/nowhere', which has no .*: set it to "),
            ({"ANDROID_SYSROOT": "/nowhere"}, "ANDROID_SYSROOT is '/nowhere', .*: set it to "),
            ({"ANDROID_SYSROOT": "/"}, "The compiler runtime for Android .*: set ANDROID_NDK to ")):
        with tempfile.TemporaryDirectory() as build:
            result = run(CMAKE, "--preset", "android-arm64", "-B", build, cwd=SOURCE,
                         env={**clean, **place})
        check(result.returncode != 0, "configured without an NDK")
        check(re.search(rf"^ *{message}.*\.$", result.stdout, re.MULTILINE), result.stdout)
        check(result.stdout.count("CMake Error") == 1, result.stdout)


{"library": library, "platform_headers": platform_headers, "preset": preset}[CASE]()
