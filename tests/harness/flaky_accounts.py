"""An account service that can be down: nsswitch.conf's "flaky" (flaky_accounts.c)."""

import shutil
import subprocess
from pathlib import Path

SOURCE = Path(__file__).with_name("flaky_accounts.c")
LIBRARY = "libnss_flaky.so.2"
COMPILER = shutil.which("gcc") or shutil.which("clang")


def build(folder):
    """Compiles the service into the folder and returns the library's path."""
    library = Path(folder) / LIBRARY
    subprocess.run([COMPILER, "-shared", "-fPIC", "-O1", "-Wall", "-Wextra", "-Werror",
                    "-o", str(library), str(SOURCE)], check=True)
    return library


class FlakyAccounts:
    """The service on a scratch machine: dora's accounts, up until `fail` is called."""

    PLACE = "/run/flaky"
    DOWN = "/run/flaky/down"

    def __init__(self, machine, library):
        self._machine = machine
        machine.path(self.PLACE).mkdir()
        machine.path(self.PLACE).chmod(0o755)
        shutil.copy(library, machine.path(f"{self.PLACE}/{LIBRARY}"))
        machine.write("/etc/nsswitch.conf", "passwd: files flaky\ngroup: files flaky\n")
        machine.env.update(LD_LIBRARY_PATH=self.PLACE, FLAKY_DOWN=self.DOWN)

    def fail(self, error):
        """From now on every call fails with this error number."""
        self._machine.write(self.DOWN, f"{error}\n")

    def answer(self):
        self._machine.path(self.DOWN).unlink()
