"""A minimal Debian root, stacked from layers, in which the packages are installed and used.

Everything happens in the namespaces that tests/installed/run has entered, so mounts vanish with them.
"""

import hashlib
import os
import shutil
import signal
import subprocess
from pathlib import Path
from typing import NamedTuple

WORK = Path(os.environ["QV_INSTALLED"])
SOURCES = Path(__file__).resolve().parents[2]
FIRST = WORK / "first/build/package"
AGAIN = WORK / "again-elsewhere/build/package"
LATER = WORK / "first/later"
PACKAGES = ("qvmaster", "qvrepo", "sjapack")
PATIENCE = 60


class Outcome(NamedTuple):
    """How a command ended; its standard error is part of the output."""

    output: str
    status: int


def deb(name, directory=FIRST):
    """The one package file of `name` in `directory`."""
    (file,) = directory.glob(f"{name}_*.deb")
    return file


class Debian:
    """A root over read-only `layers` (the uppermost first), with a layer of its own for what is changed in it."""

    def __init__(self, place, layers):
        self.place, self.layers = place, layers
        self.root = place / "root"
        place.mkdir(parents=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=755", "qv-layer", place], check=True)
        for name in ("root", "upper", "work"):
            (place / name).mkdir()
        os.chmod(place / "upper", 0o755)
        lower = ":".join(str(layer) for layer in layers)
        options = f"lowerdir={lower},upperdir={place / 'upper'},workdir={place / 'work'}"
        subprocess.run(["mount", "-t", "overlay", "-o", options, "qv-root", self.root], check=True)
        subprocess.run(["mount", "-t", "proc", "proc", self.root / "proc"], check=True)
        (self.root / "etc/hosts").write_text("127.0.0.1 localhost\n127.0.1.1 master.example.com master\n::1 localhost\n")

    @property
    def upper(self):
        """The layer of its own, for roots that stand on this one."""
        return self.place / "upper"

    def path(self, name):
        """Where a path of the root lies outside of it."""
        return self.root / name.lstrip("/")

    def argv(self, *arguments, env=None):
        plain = {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root",
                 "DEBIAN_FRONTEND": "noninteractive", **(env or {})}
        settings = [f"{name}={value}" for name, value in plain.items()]
        return ["chroot", str(self.root), "env", "-i", *settings, *(str(argument) for argument in arguments)]

    def run(self, *arguments, stdin="", env=None, expect=0):
        """Runs a command in the root; fails unless it ends with the status `expect` (None: any)."""
        run = subprocess.run(self.argv(*arguments, env=env), input=stdin, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                             text=True, timeout=PATIENCE)
        assert expect is None or run.returncode == expect, f"{arguments} ended with {run.returncode}:\n{run.stdout}"
        return Outcome(run.stdout, run.returncode)

    def dpkg(self, action, *names, directory=FIRST, expect=0):
        """dpkg --install, --remove or --purge of packages by name; package files come from `directory`."""
        if action != "--install":
            return self.run("dpkg", action, *names, expect=expect)
        inside = self.path("tmp/packages")
        inside.mkdir(exist_ok=True)
        files = [Path(shutil.copy(deb(name, directory), inside)) for name in names]
        return self.run("dpkg", "--install", *(f"/tmp/packages/{file.name}" for file in files), expect=expect)

    def exists(self, name):
        return self.path(name).exists()

    def facts(self, *directories):
        """All that lies below `directories`: path -> mode, owner, and the content's digest or a link's target."""
        facts = {}
        for directory in directories:
            top = self.path(directory)
            for path in sorted([top, *top.rglob("*")]):
                state = path.lstat()
                content = None
                if path.is_symlink():
                    content = os.readlink(path)
                elif path.is_file():
                    content = hashlib.sha256(path.read_bytes()).hexdigest()
                facts["/" + str(path.relative_to(self.root))] = (oct(state.st_mode), state.st_uid, state.st_gid, content)
        return facts

    def discard(self):
        subprocess.run(["umount", "-R", "-l", self.place], check=True)
        self.place.rmdir()


def unit_setting(debian, name, beginning=""):
    """The one value of a setting in the service's unit, among those with that `beginning`."""
    unit = debian.path("usr/lib/systemd/system/qvmaster.service").read_text()
    (value,) = [line.partition("=")[2] for line in unit.splitlines() if line.startswith(f"{name}={beginning}")]
    return value


# What the unit asks systemd for, as far as it concerns files and rights, done by hand: there is no systemd in here.
CONFINED = """
set -e
mount --make-rprivate /
mount --bind / / && cd / && mount -o remount,bind,ro /
mount --bind /var/lib/qvmaster /var/lib/qvmaster && mount -o remount,bind,rw /var/lib/qvmaster
mount -t tmpfs tmpfs /tmp
exec setpriv --reuid qvmaster --regid qvmaster --clear-groups --no-new-privs --bounding-set=-all --inh-caps=-all -- "$@"
"""


class Service:
    """qvmaster, run in `debian` by its unit's command line, as its unit's user, with what its unit may write; where
    `tracer` is given, below that command of the machine's. As a context manager it ends the service in any case."""

    def __init__(self, debian, tracer=()):
        command = unit_setting(debian, "ExecStart").replace("$QVMASTER_OPTIONS", "").split()
        confined = debian.argv("unshare", "--mount", "bash", "-c", CONFINED, "confined", *command)
        self.process = subprocess.Popen([*tracer, *confined], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                        start_new_session=True)
        self.first_line = self.process.stdout.readline()

    def __enter__(self):
        return self

    def __exit__(self, *failure):
        if self.process.poll() is None:
            os.killpg(self.process.pid, signal.SIGKILL)
            self.process.wait(PATIENCE)

    def stop(self):
        """Asks it to stop, as systemd would, and returns its exit status."""
        self.process.send_signal(signal.SIGTERM)
        status = self.process.wait(PATIENCE)
        self.process.stdout.close()
        return status
