"""The Debian packages, made from what was built, and how they get onto a machine."""

import shutil
import subprocess

from harness.waiting import wait_for

PACKAGES = ("tellbox", "tellbox-user", "tellbox-desktop")
CONFIGURATION = "etc/tellbox/tellbox.conf"
BASE_FOLDERS = ("bin", "lib", "share", "share/man")

# A /usr/local with the folders of the base system and nothing else.
PREPARE = f"""
mount -t tmpfs -o mode=755 tmpfs /usr/local
cd /usr/local
mkdir -m 755 {' '.join(BASE_FOLDERS)}
ln -s share/man man
"""


def make_packages(tree, folder):
    """Makes the packages of a built tree, and a newer and an older version of each."""
    subprocess.run(["cpack", "-G", "DEB", "-B", folder, "--config", tree / "CPackConfig.cmake"],
                   check=True, capture_output=True)
    for part in PACKAGES:
        deb, = folder.glob(f"{part}_[0-9]*.deb")
        deb.rename(folder / f"{part}.deb")
        make_version(folder, part, "newer", "1:")
        make_version(folder, part, "older", "0.0~")
    return folder


def make_version(folder, part, name, prefix):
    content = folder / f"{part}-{name}"
    subprocess.run(["dpkg-deb", "-R", folder / f"{part}.deb", content], check=True)
    control = content / "DEBIAN/control"
    control.write_text(control.read_text().replace("\nVersion: ", f"\nVersion: {prefix}"))
    if (content / CONFIGURATION).exists():
        (content / CONFIGURATION).write_text(f"# The {name} one.\n")
    subprocess.run(["dpkg-deb", "-Znone", "--root-owner-group", "-b", content,
                    folder / f"{part}-{name}.deb"], check=True, capture_output=True)


def place_packages(machine, folder):
    """Puts the packages where install() finds them, and clears /usr/local."""
    for path in folder.glob("*.deb"):
        shutil.copyfile(path, machine.path(f"/srv/{path.name}"))
    machine.run("sh", "-ec", PREPARE)


def take_away(machine):
    """Ends what place_packages() began, and purges what was installed since."""
    dpkg(machine, "-P", *PACKAGES)
    # Agents that were told to end may still be at it.
    wait_for(lambda: machine.run("umount", "/usr/local", check=False).returncode == 0,
             "nothing runs from /usr/local")


def dpkg(machine, *arguments):
    """Runs dpkg; returns what it says."""
    result = machine.run("dpkg", *arguments, env={"DEBIAN_FRONTEND": "noninteractive"},
                         timeout=120)
    return result.stdout + result.stderr


def install(machine, *parts, version=None):
    """Installs or upgrades packages; keeps a configuration that was changed."""
    debs = [f"/srv/{part}-{version}.deb" if version else f"/srv/{part}.deb" for part in parts]
    return dpkg(machine, "--force-confdef", "--force-confold", "-i", *debs)
