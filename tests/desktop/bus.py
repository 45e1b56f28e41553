"""A session bus of the tests' own."""

import subprocess

from processes import end

CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path={folder}/socket</listen>
  <auth>EXTERNAL</auth>
  <servicedir>{services}</servicedir>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
"""


class SessionBus:
    """A running message bus. `services` holds what it may start when it is asked for it."""

    def __init__(self, folder, services=None, env=None):
        self._env = env or {}
        self._folder, self.services = folder, services or folder / "services"
        self.services.mkdir(exist_ok=True)
        self._configuration = folder / "bus.conf"
        self._configuration.write_text(CONFIGURATION.format(folder=folder,
                                                            services=self.services))
        self._start()

    def _start(self):
        self._process = subprocess.Popen(
            ["dbus-daemon", f"--config-file={self._configuration}", "--nofork",
             "--print-address"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
            text=True, start_new_session=True,
            # The accessibility bus would else be at one place for everybody.
            env={"PATH": "/usr/bin:/bin", "XDG_RUNTIME_DIR": str(self._folder),
                 "HOME": str(self._folder), **self._env})
        self.address = self._process.stdout.readline().strip().split(",")[0]
        assert self.address, "the bus did not start"

    def restart(self):
        """Everybody is thrown out; the address stays."""
        self.close()
        self._start()

    def reload(self):
        """It looks anew at what it may start."""
        subprocess.run(["gdbus", "call", "--address", self.address, "--dest",
                        "org.freedesktop.DBus", "--object-path", "/org/freedesktop/DBus",
                        "--method", "org.freedesktop.DBus.ReloadConfig"], check=True,
                       stdout=subprocess.DEVNULL, timeout=20)

    def close(self):
        end(self._process)
