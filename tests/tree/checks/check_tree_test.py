"""Plants faults in small trees and looks whether check-tree finds each of them, and nothing else."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

CHECK_TREE = sys.argv.pop()

LAYERS = """
| layer | what | files |
|---|---|---|
| 1 | low | `low/` |
| 2 | high | `high/` `low/high_part` |
"""


class CheckTreeTest(unittest.TestCase):
    def faults(self, check, files):
        with tempfile.TemporaryDirectory() as root:
            for name, text in {"docs/architecture.md": LAYERS, **files}.items():
                path = pathlib.Path(root, name)
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_text(text)
            result = subprocess.run([CHECK_TREE, "--root", root, check], capture_output=True, text=True, check=False)
            self.assertEqual(result.stderr, "")
            self.assertEqual(result.returncode, 1 if result.stdout else 0)
            return result.stdout.splitlines()

    def test_only_includes_that_run_upwards_are_found(self):
        faults = self.faults("includes", {
            "src/high/a.h": '#include "low/a.h"\n',
            "src/low/a.h": "#include <vector>\n",
            "src/low/a.cpp": '#include "low/a.h"\n  # include "high/a.h"\n// #include "high/a.h"\n',
            "src/low/high_part.cpp": '#include "high/a.h"\n',
        })
        self.assertEqual(faults, ["src/low/a.cpp:2: layer 1 includes high/a.h of layer 2"])

    def test_files_without_layer_and_unknown_headers_are_found(self):
        faults = self.faults("includes", {"src/new/a.h": "", "src/low/a.cpp": '#include "gone.h"\n'})
        self.assertEqual(len(faults), 2, faults)

    def test_banned_calls_are_found_in_code_only(self):
        faults = self.faults("calls", {
            "src/low/a.cpp": 'void f() {\n  strcpy(a, b);\n  std::stoi(c);\n  run("KEYS *");\n}\n',
            "src/low/b.cpp": '// strcpy(a, b)\nconst char *t = "system(x)";\nint n = snprintf(b, 1, "");\n'
                             'int m = sprintf_s(b, 1, "");\nconst char *u = "MONKEYS";\n',
        })
        self.assertEqual([fault.split(": ")[0] for fault in faults],
                         ["src/low/a.cpp:2", "src/low/a.cpp:3", "src/low/a.cpp:4"])

    def test_names_in_documents_must_be_there(self):
        faults = self.faults("documents", {
            "src/low/high_part.cpp": "",
            "src/high/a.h": "",
            "src/low/a.cpp": "int low_work(int n) { return n; }\n// low_gone()\n",
            "README.md": "`src/low/a.cpp` `low/a.cpp` `a.cpp` `src/low/*.cpp` `low_work()` `/etc/hosts` `a/b` `build/x.cpp`\n"
                         "[here](docs/architecture.md)\n```\n`src/gone.cpp`\n```\n"
                         "`src/low/gone.cpp`\n`low_gone()`\n`gone.h`\n[there](docs/gone.md)\n",
        })
        self.assertEqual([fault.split(": ")[0] for fault in faults], [f"README.md:{line}" for line in (6, 7, 8, 9)])


if __name__ == "__main__":
    unittest.main()
