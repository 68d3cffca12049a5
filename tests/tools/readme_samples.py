#!/usr/bin/env python3
"""Compiles and runs the host samples of README.md against the built library,
so that the samples people copy keep working.

usage: readme_samples.py README INCLUDE_DIR LIBRARY_DIR C_COMPILER CXX_COMPILER [EXTRA_FLAGS ...]

Every fenced block marked c, cpp or python is a complete program that must
exit with status 0. Python samples load the library with ctypes; a sanitizer
build cannot be loaded into an uninstrumented interpreter, so when the extra
flags ask for a sanitizer they are only compiled to byte code."""

import os
import re
import subprocess
import sys
import tempfile


def main(readme, include, library_dir, c_compiler, cxx_compiler, *flags):
    with open(readme, encoding="utf-8") as f:
        found = re.findall(r"^```(c|cpp|python)\n(.*?)^```", f.read(), re.M | re.S)
    if sorted({kind for kind, _ in found}) != ["c", "cpp", "python"]:
        sys.exit("README.md should hold a C, a C++ and a Python sample")
    env = dict(os.environ, LD_LIBRARY_PATH=library_dir)
    failures = 0
    with tempfile.TemporaryDirectory() as folder:
        for number, (kind, code) in enumerate(found, 1):
            source = os.path.join(folder, "sample%d.%s" % (number, "py" if kind == "python" else kind))
            with open(source, "w", encoding="utf-8") as f:
                f.write(code)
            if kind == "python":
                compile(code, source, "exec")
                if any(flag.startswith("-fsanitize") for flag in flags):
                    print("sample %d (python): syntax ok, not run against a sanitizer build" % number)
                    continue
                step = subprocess.run([sys.executable, source], capture_output=True, text=True, timeout=300, env=env)
            else:
                compiler, standard = (c_compiler, "-std=c11") if kind == "c" else (cxx_compiler, "-std=c++20")
                step = subprocess.run([compiler, standard, "-Wall", "-Wextra", "-Werror", *flags, "-I", include, source,
                                       "-o", source + ".out", "-L", library_dir, "-lkrfilter"], capture_output=True, text=True)
                if step.returncode == 0:
                    step = subprocess.run([source + ".out"], capture_output=True, text=True, timeout=300, env=env)
            print("sample %d (%s): exit %d\n%s%s" % (number, kind, step.returncode, step.stdout, step.stderr))
            failures += step.returncode != 0
    print("%d of %d README samples ok" % (len(found) - failures, len(found)))
    return 1 if failures else 0


if __name__ == "__main__":
    if len(sys.argv) < 6:
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
