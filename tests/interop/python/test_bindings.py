"""The ctypes side of the bindings against the C side: record layouts as the C compiler lays
them out, the result-code words of the command-line tool, where the library is found."""
import ctypes
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import varnel
from varnel import records

SOURCE_DIR = os.environ["VARNEL_SOURCE_DIR"]


def c_layout():
    """{"CAN_MSG": 20, "CAN_MSG.Data": 11, ...} as the C compiler lays out varnel.h: a program
    printing the size of every record the bindings mirror and the offset of each of its fields."""
    prints = [f'P("{n}", sizeof({n}));' for n in records.RECORDS]
    prints += [f'P("{n}.{f}", offsetof({n}, {f}));'
               for n, record in records.RECORDS.items() for f, _ in record._fields_]
    source = ('#include <stddef.h>\n#include <stdio.h>\n#include "varnel.h"\n'
              '#define P(name, value) printf("%s %zu\\n", name, value)\n'
              'int main(void) {\n' + "\n".join(prints) + "\nreturn 0;\n}\n")
    with tempfile.TemporaryDirectory() as work:
        program = os.path.join(work, "layout")
        built = subprocess.run([os.environ["VARNEL_C_COMPILER"], "-x", "c", "-", "-o", program,
                                "-I", os.path.join(SOURCE_DIR, "include")], input=source,
                               capture_output=True, text=True, timeout=60)
        assert built.returncode == 0, built.stderr  # a field varnel.h does not have, say
        out = subprocess.run([program], check=True, capture_output=True, text=True,
                             timeout=10).stdout
    return {name: int(value) for name, value in (line.split() for line in out.splitlines())}


class RecordLayout(unittest.TestCase):
    def test_every_record_and_field_lies_where_the_c_compiler_puts_it(self):
        layout = c_layout()
        for name, record in records.RECORDS.items():
            with self.subTest(record=name):
                self.assertEqual(ctypes.sizeof(record), layout[name])
                for field, _ in record._fields_:
                    self.assertEqual(getattr(record, field).offset, layout[f"{name}.{field}"],
                                     field)


def _result_text_source():
    path = os.path.join(SOURCE_DIR, "tools", "varnel", "core", "result_text.cpp")
    with open(path, encoding="utf-8") as f:
        return f.read()


class ResultWords(unittest.TestCase):
    def test_common_table_matches_the_command_line_tool(self):
        source = _result_text_source()
        table = re.search(r"kCommon\[\]\s*=\s*\{(.*?)\};", source, re.S).group(1)
        entries = re.findall(r'\{\s*(-?\d+)\s*,\s*"([^"]*)"\s*\}', table)
        self.assertGreaterEqual(len(entries), 7)
        self.assertEqual(varnel.RESULT_TEXT, {int(code): text for code, text in entries})
        # the fallbacks of result_text() for codes outside the table
        fallbacks = re.findall(r'"(success \(a count\))"\s*:\s*"(unknown result code)"', source)
        self.assertEqual(fallbacks, [(varnel.result_text(3), varnel.result_text(-99))])

    def test_call_meanings_match_the_command_line_tool(self):
        source = _result_text_source()
        table = re.search(r"kCallMeanings\[\]\s*=\s*\{(.*?)\n\};", source, re.S).group(1)
        entries = re.findall(r'\{"(\w+)",\s*(-?\d+),\s*((?:"[^"]*"\s*)+)\}', table)
        words = {(call, int(code)): "".join(re.findall(r'"([^"]*)"', text))
                 for call, code, text in entries}
        self.assertGreaterEqual(len(words), 4)
        self.assertEqual(varnel.errors.CALL_TEXT, words)


class LibraryLookup(unittest.TestCase):
    def run_python(self, code, **env):
        environment = dict(os.environ, **env)
        return subprocess.run([sys.executable, "-c", code], env=environment, capture_output=True,
                              text=True, timeout=20)

    def test_missing_library_named_by_the_environment_is_an_error_not_a_fallback(self):
        result = self.run_python("import varnel; varnel.scan()", VARNEL_LIBRARY="/nonexistent.so")
        self.assertNotEqual(result.returncode, 0)
        self.assertIn("OSError", result.stderr)
        self.assertIn("/nonexistent.so", result.stderr)

    def test_build_tree_next_to_the_package_is_found_without_the_variable(self):
        env = {k: v for k, v in os.environ.items() if k != "VARNEL_LIBRARY"}
        code = "from varnel import library; print(library.candidates()[0])"
        result = subprocess.run([sys.executable, "-c", code], env=env, capture_output=True,
                                text=True, timeout=20)
        found = result.stdout.strip()
        self.assertTrue(found.startswith(os.path.join(SOURCE_DIR, "build")), found)
        self.assertTrue(found.endswith("/libvarnel.so"), found)

    def test_package_version_and_dist_info_agree(self):
        python_dir = os.path.join(SOURCE_DIR, "python")
        with open(os.path.join(python_dir, f"varnel-{varnel.__version__}.dist-info",
                               "METADATA")) as f:
            self.assertIn(f"Version: {varnel.__version__}\n", f.read())
        with open(os.path.join(python_dir, "pyproject.toml")) as f:
            self.assertIn(f'version = "{varnel.__version__}"', f.read())


class PipInstall(unittest.TestCase):
    def test_installed_copy_registers_the_python_can_interface(self):
        # offline: Debian's setuptools builds it, nothing is fetched
        with tempfile.TemporaryDirectory() as work:
            source = os.path.join(work, "source")  # a copy: the build writes beside its sources
            shutil.copytree(os.path.join(SOURCE_DIR, "python"), source,
                            ignore=shutil.ignore_patterns("__pycache__", "*.egg-info", "build"))
            target = os.path.join(work, "site")
            subprocess.run([sys.executable, "-m", "pip", "install", "--quiet", "--no-deps",
                            "--no-index", "--no-build-isolation", "--target", target, source],
                           check=True, capture_output=True, timeout=120)
            env = dict(os.environ, PYTHONPATH=target)
            code = ("import can, varnel; print(varnel.__file__); "
                    "bus = can.Bus(interface='varnel', channel='0x12345678:0'); "
                    "print(bus.channel_info); bus.shutdown()")
            result = subprocess.run([sys.executable, "-c", code], env=env, capture_output=True,
                                    text=True, timeout=30)
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertEqual(result.stdout.splitlines(),
                             [os.path.join(target, "varnel", "__init__.py"),
                              "VARNEL 0x12345678:0 (CAN, 500000 bit/s)"])


if __name__ == "__main__":
    unittest.main()
