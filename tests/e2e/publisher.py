"""The publisher's tool as its tests run it, and the keys and files that they give it."""

import errno
import os
import pty
import re
import resource
import subprocess
import termios
from pathlib import Path

import pytest
from world import await_that

SJAPACK = Path(os.environ["QV_BIN"]) / "sjapack"
DOCUMENTS = Path(__file__).resolve().parents[2] / "docs"
GOOD_NAME = "dunmarel_qvclient_8.3.0.1_redhat_x64.sja"


def run(*arguments, cwd=None, **more):
    return subprocess.run([SJAPACK, *arguments], cwd=cwd, capture_output=True, text=True, stdin=subprocess.DEVNULL, **more)


def done(*arguments, cwd=None, **more):
    """Runs a command that has to succeed, and returns its standard output."""
    result = run(*arguments, cwd=cwd, **more)
    assert (result.returncode, result.stderr) == (0, ""), result
    return result.stdout


def refused(*arguments, cwd=None, **more):
    """Runs a command that has to be refused with one line, and returns that line without the program's name."""
    result = run(*arguments, cwd=cwd, **more)
    assert (result.returncode, result.stdout) == (1, ""), result
    assert re.fullmatch(r"sjapack: [^\n]+\n", result.stderr), result
    return result.stderr[len("sjapack: ") : -1]


def names(directory):
    return sorted(entry.name for entry in Path(directory).iterdir())


def openssl(*arguments, **more):
    return subprocess.run(["openssl", *map(str, arguments)], capture_output=True, **more)


def openssl_verifies(package, public_key, scratch):
    """Whether openssl alone finds the package's signature valid."""
    bytes_ = Path(package).read_bytes()
    (scratch / "signature").write_bytes(bytes_[:512])
    (scratch / "signed").write_bytes(bytes_[512:])
    arguments = ["dgst", "-sha512", "-verify", public_key, "-signature", scratch / "signature", scratch / "signed"]
    result = openssl(*arguments)
    assert result.stdout in (b"Verified OK\n", b"Verification failure\n"), result
    return result.returncode == 0


def on_a_terminal(arguments, answers=b"", cwd=None, env=None):
    """Runs a command with a terminal of its own as input and error output; returns its status and what it shows."""
    process, terminal = pty.fork()
    if process == 0:
        if cwd:
            os.chdir(cwd)
        os.execve(SJAPACK, [str(SJAPACK), *map(str, arguments)], env or os.environ)
    shown, given = b"", 0
    answers = answers.splitlines(keepends=True)
    while True:
        try:
            part = os.read(terminal, 65536)
        except OSError as error:  # how Linux ends a terminal that nobody has open any more
            assert error.errno == errno.EIO
            break
        if not part:
            break
        shown += part
        if shown.count(b"assphrase: ") > given:
            # The prompt comes first; what is typed before the terminal stops showing it, is shown.
            await_that(lambda: not termios.tcgetattr(terminal)[3] & termios.ECHO, "the terminal stops showing input")
            os.write(terminal, answers[given])
            given += 1
    _, status = os.waitpid(process, 0)
    os.close(terminal)
    return os.waitstatus_to_exitcode(status), shown.decode()


@pytest.fixture(scope="session")
def keys(tmp_path_factory):
    """A directory with a publisher's key pair (key, pub) and a stranger's (other.key, other.pub)."""
    directory = tmp_path_factory.mktemp("keys")
    done("keygen", "--private", "key", "--public", "pub", cwd=directory)
    done("keygen", "--private", "other.key", "--public", "other.pub", cwd=directory)
    return directory


@pytest.fixture
def here(tmp_path):
    """An empty directory, with a helper that makes files in it."""

    class Here:
        path = tmp_path

        def file(self, name, data=b"data", mode=0o644):
            path = tmp_path / name
            path.write_bytes(data)
            path.chmod(mode)
            return path

        def names(self):
            return names(tmp_path)

    return Here()


@pytest.fixture
def small_volume(tmp_path_factory):
    """A volume of 256 KiB."""
    directory = tmp_path_factory.mktemp("volume")
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=256k", "qv-test", directory], check=True)
    yield directory
    subprocess.run(["umount", "-l", directory], check=True)


def limit_file_size():
    """Lets no file grow past 1 MiB; the write that would is an error where SIGXFSZ is ignored."""
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 20, 1 << 20))


def code_blocks(page, language):
    """The blocks of code in a page of the documents."""
    return re.findall(rf"^```{language}\n(.*?)^```$", (DOCUMENTS / page).read_text(), re.MULTILINE | re.DOTALL)
