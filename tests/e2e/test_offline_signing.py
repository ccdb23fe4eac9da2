"""Signing where the key is not: the digest goes out, the signature comes back."""

import hashlib
import os
import stat

import pytest

from packages import archive, flip_byte
from publisher import GOOD_NAME, done, here, keys, openssl, refused, run, small_volume, limit_file_size, names

CONTENT = archive(("one", b"12345"), ("two", b"67"))
SIGNED = f"{GOOD_NAME}: 2 entries, signed, single package\n"
DIGEST = hashlib.sha512(CONTENT)


def sign_digest(key, digest, signature):
    openssl("pkeyutl", "-sign", "-inkey", key, "-pkeyopt", "digest:sha512", "-in", digest, "-out", signature, check=True)


@pytest.fixture
def package(here):
    return here.file(GOOD_NAME, CONTENT, 0o640)


@pytest.fixture
def signature(here, keys):
    """The publisher's signature of the package, in a file."""
    here.file("digest", DIGEST.digest())
    sign_digest(keys / "key", here.path / "digest", here.path / "signature")
    (here.path / "digest").unlink()
    return here.path / "signature"


# digest


def test_digest_prints_what_is_signed(here, keys, package):
    assert done("digest", GOOD_NAME, cwd=here.path) == DIGEST.hexdigest() + "\n"
    assert package.read_bytes() == CONTENT
    done("sign", GOOD_NAME, "--key", keys / "key", cwd=here.path)
    assert done("digest", GOOD_NAME, cwd=here.path) == DIGEST.hexdigest() + "\n"
    assert here.names() == [GOOD_NAME]


def test_digest_writes_what_other_tools_sign(here, keys, package):
    assert done("digest", GOOD_NAME, "--raw", "raw", cwd=here.path) == DIGEST.hexdigest() + "\n"
    assert (here.path / "raw").read_bytes() == DIGEST.digest()
    here.file("info", b"something else that is longer than what comes in its place, by at least a byte or a few more")
    assert done("digest", GOOD_NAME, "--digest-info", "info", cwd=here.path) == DIGEST.hexdigest() + "\n"
    sign_digest(keys / "key", here.path / "raw", here.path / "by-raw")
    # Pads and signs whatever it is given, as some devices do.
    openssl("rsautl", "-sign", "-inkey", keys / "key", "-in", here.path / "info", "-out", here.path / "by-info", check=True)
    expected = openssl("dgst", "-sha512", "-sign", keys / "key", input=CONTENT, check=True).stdout
    assert (here.path / "by-raw").read_bytes() == expected
    assert (here.path / "by-info").read_bytes() == expected


def test_digest_refuses_what_cannot_be_signed(here):
    cases = {
        b"": "a.sja is not an .sja archive",
        b"JANK": "a.sja has no entry",
        CONTENT[:-1]: "a.sja is damaged: the last entry runs past the end of the file",
    }
    for content, reason in cases.items():
        here.file("a.sja", content)
        assert refused("digest", "a.sja", "--raw", "raw", cwd=here.path) == reason
    assert refused("digest", "missing", cwd=here.path) == "cannot read missing: No such file or directory"
    assert refused("digest", ".", cwd=here.path).endswith(" is a directory")
    assert here.names() == ["a.sja"]


def test_digest_never_overwrites_the_archive(here, package):
    os.link(package, here.path / "link")
    for option in ("--raw", "--digest-info"):
        for out in (GOOD_NAME, "link"):
            assert refused("digest", GOOD_NAME, option, out, cwd=here.path) == f"{out} is the archive itself"
    assert refused("digest", GOOD_NAME, "--raw", "/dev/null", cwd=here.path) == "/dev/null is not a regular file"
    assert refused("digest", GOOD_NAME, "--raw", "no/raw", cwd=here.path) == (
        "cannot write no/raw: No such file or directory"
    )
    assert package.read_bytes() == CONTENT
    assert here.names() == [GOOD_NAME, "link"]


# attach


@pytest.mark.parametrize("checked", [True, False])
def test_attach_gives_the_same_bytes_as_sign(here, keys, package, signature, checked):
    other = here.file("other", CONTENT, 0o640)
    run("sign", other, "--key", keys / "key")
    arguments = ["--key", keys / "pub"] if checked else []
    assert done("attach", GOOD_NAME, "signature", *arguments, cwd=here.path) == SIGNED
    assert package.read_bytes() == other.read_bytes()
    assert stat.S_IMODE(package.stat().st_mode) == 0o640
    assert here.names() == [GOOD_NAME, "other", "signature"]


def test_attach_replaces_an_earlier_signature(here, keys, package, signature):
    done("sign", GOOD_NAME, "--key", keys / "other.key", cwd=here.path)
    assert done("attach", GOOD_NAME, "signature", "--key", keys / "pub", cwd=here.path) == SIGNED
    assert package.read_bytes() == signature.read_bytes() + CONTENT


def test_attach_puts_no_wrong_signature_into_place(here, keys, package, signature):
    def attach(key):
        reason = refused("attach", GOOD_NAME, "signature", "--key", keys / key, cwd=here.path)
        assert reason == f"the signature in signature is not valid for the archive and the key in {keys / key}"
        assert here.names() == [GOOD_NAME, "signature"]

    attach("other.pub")
    assert package.read_bytes() == CONTENT
    flip_byte(signature, -1)
    attach("pub")
    assert package.read_bytes() == CONTENT
    flip_byte(signature, -1)
    changed = CONTENT[:-1] + b"8"
    package.write_bytes(changed)
    attach("pub")
    assert package.read_bytes() == changed
    done("sign", GOOD_NAME, "--key", keys / "other.key", cwd=here.path)
    before = package.read_bytes()
    attach("pub")
    assert package.read_bytes() == before


@pytest.mark.parametrize("size", [0, 511, 513, 1 << 40])
def test_attach_takes_only_a_signatures_length(here, package, size):
    with open(here.path / "signature", "wb") as file:
        file.truncate(size)
    assert refused("attach", GOOD_NAME, "signature", cwd=here.path) == (
        f"signature is not a signature: it has {size} bytes, a signature has 512"
    )
    assert package.read_bytes() == CONTENT
    assert here.names() == [GOOD_NAME, "signature"]


def test_attach_refuses_other_files(here, keys, package, signature):
    os.mkfifo(here.path / "pipe")
    here.file("damaged", CONTENT[:-1])
    before = here.names()
    cases = {
        (GOOD_NAME, "missing"): "cannot read missing: No such file or directory",
        (GOOD_NAME, "."): ". is a directory",
        (GOOD_NAME, "pipe"): "pipe is not a regular file",
        ("missing", "signature"): "cannot read missing: No such file or directory",
        ("damaged", "signature"): "damaged is damaged: the last entry runs past the end of the file",
        ("signature", "signature"): "signature is both input and output",
        (GOOD_NAME, "signature", "--key", "missing"): "cannot read missing: No such file or directory",
        (GOOD_NAME, "signature", "--key", keys / "key"): f"{keys / 'key'} holds no public key",
        (GOOD_NAME, "signature", "--key", "file:/missing"): "cannot read file:/missing: No such file or directory",
    }
    for arguments, reason in cases.items():
        assert refused("attach", *arguments, cwd=here.path) == reason
    assert package.read_bytes() == CONTENT
    assert here.names() == before


def test_attach_leaves_the_archive_when_it_cannot_be_written(here, keys, signature, small_volume):
    half = archive(("half", b"h" * 150000))
    out = small_volume / "out.sja"
    out.write_bytes(half)
    assert refused("attach", out, signature) == f"cannot write {out}: No space left on device"
    assert names(small_volume) == ["out.sja"]
    assert out.read_bytes() == half

    large = here.file("large.sja", archive(("large", b"l" * (3 << 20))))
    before = large.read_bytes()
    assert refused("attach", large, signature, preexec_fn=limit_file_size) == f"cannot write {large}: File too large"
    assert large.read_bytes() == before
    assert here.names() == ["large.sja", "signature"]


# arguments


@pytest.mark.parametrize(
    "arguments",
    [
        ["digest"],
        ["digest", GOOD_NAME, "more"],
        ["digest", GOOD_NAME, "--raw"],
        ["digest", GOOD_NAME, "--raw", "raw", "--digest-info", "info"],
        ["digest", GOOD_NAME, "--key", "k"],
        ["attach"],
        ["attach", GOOD_NAME],
        ["attach", GOOD_NAME, "signature", "more"],
        ["attach", GOOD_NAME, "signature", "--key"],
        ["attach", GOOD_NAME, "signature", "--ask-passphrase"],
    ],
)
def test_a_usage_error_changes_nothing(here, package, arguments):
    result = run(*arguments, cwd=here.path)
    assert (result.returncode, result.stdout) == (2, "")
    assert result.stderr.endswith(" (see sjapack --help)\n") and result.stderr.count("\n") == 1
    assert package.read_bytes() == CONTENT
    assert here.names() == [GOOD_NAME]
