"""Checks that cmake --install stays below its prefix, and that the unit names the installed paths.

Usage: test_install.py BUILD_FOLDER
"""

import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

BUILD = sys.argv[1]


class InstallTest(unittest.TestCase):
    def test_prefix(self):
        with tempfile.TemporaryDirectory() as folder:
            prefix = pathlib.Path(folder, "a place")
            done = subprocess.run(["cmake", "--install", BUILD, "--prefix", prefix], check=True,
                                  capture_output=True, encoding="utf-8")
            paths = re.findall(r"^-- Installing: (.*)", done.stdout, re.MULTILINE)
            self.assertGreater(len(paths), 10)
            self.assertEqual([path for path in paths if not path.startswith(f"{prefix}/")], [])
            unit = (prefix / "lib/systemd/system/orvex.service").read_text("utf-8")
            self.assertIn(f"EnvironmentFile=-{prefix}/etc/default/orvex\n", unit)
            self.assertIn(f"ExecStart={prefix}/sbin/orvex ".replace("a place", r"a\x20place"), unit)
            for path in "etc/default/orvex", "sbin/orvex":
                self.assertTrue((prefix / path).is_file(), path)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
