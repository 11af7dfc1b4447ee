"""The package installs offline with Debian's tooling into a virtual
environment and imports there without PYTHONPATH."""
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

PYTHON_DIR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")


class InstallTest(unittest.TestCase):
    def test_pip_install_into_a_venv(self):
        with tempfile.TemporaryDirectory() as tmp:
            # A copy, since the build leaves build/ and *.egg-info beside the sources.
            source = os.path.join(tmp, "src")
            shutil.copytree(PYTHON_DIR, source, ignore=shutil.ignore_patterns("tests", "build", "*.egg-info",
                                                                              "__pycache__"))
            venv = os.path.join(tmp, "venv")
            made = subprocess.run([sys.executable, "-m", "venv", "--system-site-packages", venv],
                                  capture_output=True, text=True)
            if made.returncode:
                self.skipTest(f"no venv here (Debian: python3-venv): {made.stderr.strip()}")
            python = os.path.join(venv, "bin", "python")
            env = {k: v for k, v in os.environ.items() if k != "PYTHONPATH"}
            subprocess.run([python, "-m", "pip", "install", "--quiet", "--no-build-isolation", "--no-index",
                            source], check=True, env=env, capture_output=True)
            shown = subprocess.run([python, "-c", "import kelvane_export as k; print(k.__file__); "
                                    "print(k.TensorModelWriter.__name__)"],
                                   check=True, env=env, cwd=tmp, capture_output=True, text=True).stdout.split()
            self.assertTrue(shown[0].startswith(venv), shown[0])
            self.assertEqual(shown[1], "TensorModelWriter")


if __name__ == "__main__":
    unittest.main()
