"""A PKCS #11 token in software, with keys in it, for the tests that sign with a key that stays in its device."""

import os
import subprocess
from pathlib import Path

MODULE = "/usr/lib/softhsm/libsofthsm2.so"
PIN = "4711%42"


def make_configuration(directory):
    """Makes a place for tokens in `directory`; returns the environment in which programs see these tokens alone."""
    (directory / "tokens").mkdir()
    configuration = directory / "softhsm2.conf"
    configuration.write_text(f"directories.tokendir = {directory}/tokens\nobjectstore.backend = file\nlog.level = ERROR\n")
    # The engine leaks 770 to 1242 bytes when it ends, in whatever program uses it, and is unloaded by the time that
    # leaks are counted, so that they cannot be told by its name.
    sanitizer = os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0"
    return {**os.environ, "SOFTHSM2_CONF": str(configuration), "ASAN_OPTIONS": sanitizer}


class Token:
    """A token "publisher" of its own, whose PIN is PIN."""

    def __init__(self, directory):
        self.environment = make_configuration(directory)
        self.pin = directory / "pin"
        self.pin.write_text(PIN)
        self._call("softhsm2-util", "--init-token", "--free", "--label", "publisher", "--pin", PIN, "--so-pin", "5678")

    def _call(self, *arguments):
        subprocess.run(arguments, env=self.environment, capture_output=True, check=True)

    def make_key(self, label, kind, id):
        """Makes a key pair in the token, of a `kind` such as "rsa:4096"."""
        self._tool("--keypairgen", "--key-type", kind, "--label", label, "--id", id)

    def take_key(self, label, path, id):
        """Puts the key pair of a PEM file into the token."""
        self._call("softhsm2-util", "--import", path, "--token", "publisher", "--label", label, "--id", id, "--pin", PIN)

    def take_careful_key(self, label, path, id):
        """Puts the private key of a PEM file into the token as one that asks for the PIN before each signature."""
        der = path.with_suffix(".der")
        self._call("openssl", "pkey", "-in", path, "-outform", "DER", "-out", der)
        self._tool("--write-object", der, "--type", "privkey", "--label", label, "--id", id, "--usage-sign", "--always-auth")
        der.unlink()

    def forget_private_half(self, label):
        self._tool("--delete-object", "--type", "privkey", "--label", label)

    def _tool(self, *arguments):
        self._call("pkcs11-tool", "--module", MODULE, "--token-label", "publisher", "--login", "--pin", PIN, *arguments)


def uri(label, pin=None, token="publisher"):
    """The URI of a key, with the file of its PIN when one is given."""
    return f"pkcs11:token={token};object={label}" + (f"?pin-source={pin}" if pin else "")


def spying_environment(environment, log):
    """The environment with a driver between the token and its user that writes all calls to the file `log`."""
    [spy] = Path("/usr/lib").glob("*/pkcs11-spy.so")
    return {**environment, "PKCS11_MODULE_PATH": str(spy), "PKCS11SPY": MODULE, "PKCS11SPY_OUTPUT": str(log)}
