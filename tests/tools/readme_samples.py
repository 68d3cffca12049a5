#!/usr/bin/env python3
"""Compiles and runs the host samples of README.md against the built library,
so that the samples people copy keep working.

Every fenced block marked c, cpp or python is a complete program that must
exit with status 0. Python samples load the library with ctypes; a sanitizer
build cannot be loaded into an uninstrumented interpreter, so there they are
only checked for syntax (--python-syntax-only)."""

import argparse
import os
import re
import subprocess
import sys
import tempfile


def samples(readme):
    with open(readme, encoding="utf-8") as f:
        text = f.read()
    return re.findall(r"^```(c|cpp|python)\n(.*?)^```", text, re.M | re.S)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--readme", required=True)
    parser.add_argument("--include", required=True)
    parser.add_argument("--library-dir", required=True)
    parser.add_argument("--c-compiler", required=True)
    parser.add_argument("--cxx-compiler", required=True)
    parser.add_argument("--flags", default="")
    parser.add_argument("--python-syntax-only", action="store_true")
    args = parser.parse_args()

    found = samples(args.readme)
    kinds = {kind for kind, _ in found}
    if kinds != {"c", "cpp", "python"}:
        sys.exit("README.md should hold a C, a C++ and a Python sample; found %s" % sorted(kinds))
    env = dict(os.environ, LD_LIBRARY_PATH=args.library_dir)
    failures = 0
    with tempfile.TemporaryDirectory() as folder:
        for number, (kind, code) in enumerate(found, 1):
            label = "sample %d (%s)" % (number, kind)
            source = os.path.join(folder, "sample%d.%s" % (number, {"c": "c", "cpp": "cpp", "python": "py"}[kind]))
            with open(source, "w", encoding="utf-8") as f:
                f.write(code)
            if kind == "python":
                if args.python_syntax_only:
                    compile(code, source, "exec")
                    print("%s: syntax ok (not run in this build)" % label)
                    continue
                command = [sys.executable, source]
            else:
                program = source + ".out"
                compiler = args.c_compiler if kind == "c" else args.cxx_compiler
                standard = "-std=c11" if kind == "c" else "-std=c++20"
                build = [compiler, standard, "-Wall", "-Wextra", "-Werror", *args.flags.split(), "-I", args.include,
                         source, "-o", program, "-L", args.library_dir, "-lkrfilter"]
                compiled = subprocess.run(build, capture_output=True, text=True)
                if compiled.returncode != 0:
                    print("%s does not compile:\n%s" % (label, compiled.stderr))
                    failures += 1
                    continue
                command = [program]
            ran = subprocess.run(command, capture_output=True, text=True, env=env, timeout=300)
            print("%s exit %d\n%s%s" % (label, ran.returncode, ran.stdout, ran.stderr))
            failures += ran.returncode != 0
    print("%d of %d README samples ok" % (len(found) - failures, len(found)))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
