"""Package files as tests need them: valid ones, and ones that are wrong in one place."""

import struct
import subprocess

from world import ROOT

SIGNING_KEY = ROOT / "publisher/signing.key"
SINGLE = "dunmarel_qvclient_8.3_redhat_x64.sja"
BUNDLE = "dunmarel_qv_8.3_redhat_x64.sja"
INNER = ["dunmarel_qvclient_8.3_suse_x64.sja", "dunmarel_qvserver_8.3_suse_x64.sja"]


def archive(*entries):
    """An unsigned archive of entries (name, data) or (name, data, mode)."""
    parts = [b"JANK"]
    for name, data, *mode in entries:
        name = name.encode(errors="surrogateescape")
        parts.append(struct.pack("<BQH", len(name), len(data), *(mode or [0o644])) + name + data)
    return b"".join(parts)


def signature(content, key=SIGNING_KEY):
    return subprocess.run(["openssl", "dgst", "-sha512", "-sign", key], input=content, capture_output=True,
                          check=True).stdout


def signed(content, key=SIGNING_KEY):
    """The signed form of an unsigned archive, or of any bytes in place of one."""
    return signature(content, key) + content


def flip_byte(path, offset):
    """Changes the one byte at `offset`; negative offsets count from the end."""
    content = bytearray(path.read_bytes())
    content[offset] ^= 0x01
    path.write_bytes(content)


def make_single(directory, name=SINGLE, data=b"the client\n"):
    """A signed package file that is not an envelope."""
    path = directory / name
    path.write_bytes(signed(archive(("payload.txt", data))))
    return path


def make_bundle(directory, name=BUNDLE, inner=None):
    """A signed envelope; `inner` are names and contents of the package files in it."""
    path = directory / name
    inner = inner or {INNER[0]: b"inner client\n", INNER[1]: b"inner server\n"}
    path.write_bytes(signed(archive(*inner.items())))
    return path
