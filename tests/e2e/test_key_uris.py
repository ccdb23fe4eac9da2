"""Signing with keys at URIs: in a token that never gives them away, from providers, and in files."""

import os
import re
import subprocess

import pytest

import token_device
import world
from packages import archive
from publisher import (GOOD_NAME, code_blocks, done, here, keys, on_a_terminal, openssl, openssl_verifies, refused, run)
from token_device import PIN, uri

CONTENT = archive(("one", b"12345"))
SIGNED = f"{GOOD_NAME}: 1 entry, signed, single package\n"
VALID = f"{GOOD_NAME}: the signature is valid\n"


@pytest.fixture(scope="module")
def token(tmp_path_factory, keys):
    """A token with the publisher's key ("imported") and keys that were made in it."""
    token = token_device.Token(tmp_path_factory.mktemp("token"))
    token.take_key("imported", keys / "key", "01")
    token.make_key("signing", "rsa:4096", "02")
    token.make_key("short", "rsa:2048", "03")
    token.make_key("curve", "EC:prime256v1", "04")
    token.make_key("half", "rsa:2048", "05")
    token.forget_private_half("half")
    return token


@pytest.fixture
def package(here):
    return here.file(GOOD_NAME, CONTENT)


def export(token, label, path):
    arguments = ["pkey", "-engine", "pkcs11", "-inform", "engine", "-pubin", "-in", uri(label), "-out", path]
    openssl(*arguments, env=token.environment, check=True)


# A key in a token


def test_a_key_made_in_a_token_signs_there(here, token, package):
    assert done("sign", GOOD_NAME, "--key", uri("signing", token.pin), cwd=here.path, env=token.environment) == SIGNED
    export(token, "signing", here.path / "pub")
    assert package.read_bytes()[512:] == CONTENT
    assert openssl_verifies(package, here.path / "pub", here.path)
    assert done("verify", GOOD_NAME, "--key", "pub", cwd=here.path) == VALID
    assert done("verify", GOOD_NAME, "--key", uri("signing"), cwd=here.path, env=token.environment) == VALID
    assert refused("verify", GOOD_NAME, "--key", uri("imported", token.pin), cwd=here.path, env=token.environment) == (
        f"the signature of {GOOD_NAME} is not valid for the key in {uri('imported')}"
    )


def test_a_key_in_a_token_signs_like_the_same_key_in_a_file(here, keys, token):
    here.file("one", b"12345")
    for out, key in (("a", keys / "key"), ("b", uri("imported", token.pin))):
        assert run("create", out, "one", "--key", key, cwd=here.path, env=token.environment).returncode == 0
    assert (here.path / "a").read_bytes() == (here.path / "b").read_bytes()


def test_a_master_server_takes_what_a_token_signed(here, token, package, master, qvrepo, repository):
    export(token, "signing", world.ROOT / "var/global/dunmarel/pubkey.pem")
    assert qvrepo("-add", str(package)).status != 0
    done("sign", GOOD_NAME, "--key", uri("signing", token.pin), cwd=here.path, env=token.environment)
    assert qvrepo("-add", str(package)).status == 0
    assert repository() == [GOOD_NAME]


def test_the_pin_comes_from_a_file_or_the_terminal(here, token, package):
    here.file("pin", PIN.encode() + b"\nnot this line\n")
    sign = ["sign", GOOD_NAME, "--key"]
    for arguments in (
        [uri("imported"), "--passphrase-file", "pin"],
        [f"{uri('imported')}?pin-source={here.path}/pin"],
        [f"{uri('imported')}?pin-source=file:{here.path}/pin"],
        [f"{uri('imported')}?pin-source=file%3A//{here.path}/pin"],
        [f"PKCS11:object=imported?pin-source={here.path}/pin"],
    ):
        package.write_bytes(CONTENT)
        assert done(*sign, *arguments, cwd=here.path, env=token.environment) == SIGNED
        assert len(package.read_bytes()) == 512 + len(CONTENT)
    package.write_bytes(CONTENT)
    status, shown = on_a_terminal([*sign, uri("imported"), "--ask-passphrase"], PIN.encode() + b"\n", cwd=here.path,
                                  env=token.environment)
    assert (status, PIN in shown) == (0, False), shown
    assert len(package.read_bytes()) == 512 + len(CONTENT)


def test_a_key_that_wants_its_pin_for_every_signature_gets_it(here, keys, token, package):
    token.take_careful_key("careful", keys / "key", "06")
    log = here.path / "calls"
    environment = token_device.spying_environment(token.environment, log)
    key = uri("careful", token.pin)
    assert done("sign", GOOD_NAME, "--key", key, cwd=here.path, env=environment) == SIGNED
    assert len(re.findall(r": C_Login$", log.read_text(), re.MULTILINE)) == 2
    assert openssl_verifies(package, keys / "pub", here.path)


@pytest.mark.parametrize(
    "attribute",
    [
        "?pin-value=4711",
        "?PIN-Value=4711",
        "?pin%2Dvalue=4711",
        "?%70in-value=4711",
        "?%2570in-value=4711",
        "?pin-value%3D4711",
        "?pin_value = 4711",
        ";pin-value=4711",
        "?x=1&pin-value=4711",
    ],
)
def test_a_pin_among_the_arguments_is_refused_and_not_shown(here, token, package, attribute):
    here.file("one")
    key = f"pkcs11:object=imported{attribute}"
    for arguments in (
        ["sign", GOOD_NAME, "--key", key],
        ["sign", GOOD_NAME, f"--key={key}"],
        ["create", "new.sja", "one", "--key", key],
        ["verify", GOOD_NAME, "--key", key],
        ["attach", GOOD_NAME, "one", "--key", key],
        ["sign", GOOD_NAME, key],
        ["list", GOOD_NAME, key],
        ["sign", GOOD_NAME, "--key", key.replace("pkcs11:", "./pkcs11:")],
        ["sign", GOOD_NAME, "--key", key.replace("pkcs11:", "elsewhere:")],
    ):
        assert refused(*arguments, cwd=here.path, env=token.environment) == (
            "a PIN in an argument (pin-value) can be seen by other users; use --ask-passphrase, --passphrase-file or "
            "pin-source"
        )
    assert package.read_bytes() == CONTENT
    assert here.names() == [GOOD_NAME, "one"]


def test_a_wrong_pin_is_given_to_the_token_once(here, token, package):
    # Tokens lock themselves after a few.
    log = here.path / "calls"
    environment = token_device.spying_environment(token.environment, log)
    refused("sign", GOOD_NAME, "--key", uri("imported", here.file("pin", b"1111")), cwd=here.path, env=environment)
    assert len(re.findall(r": C_Login$", log.read_text(), re.MULTILINE)) == 1


BAD_KEYS = {
    uri("imported"): f"the token of the private key {uri('imported')} needs a PIN",
    uri("imported", "WRONG"): f"the PIN does not match the token of the private key {uri('imported')}",
    uri("missing", "PIN"): f"no token has the private key {uri('missing')}",
    uri("half", "PIN"): f"no token has the private key {uri('half')}",
    uri("imported", "PIN", "lost"): f"no token has the private key {uri('imported', None, 'lost')}",
    uri("imported;type=public", "PIN"): f"{uri('imported;type=public')} does not name a private key",
    uri("short", "PIN"): f"the key in {uri('short')} is not an RSA key of 4096 bits",
    uri("curve", "PIN"): f"the key in {uri('curve')} is not an RSA key of 4096 bits",
    "pkcs11:imported": "pkcs11:imported is not a PKCS #11 URI",
    uri("imported", "PIN") + "&pin-source=PIN": "the key's URI names more than one PIN",
    uri("imported", "pin"): "the pin-source of the key's URI is not a file's absolute path",
    "pkcs11:object=imported?pin-source=/missing": "cannot read /missing: No such file or directory",
    "elsewhere:key": "nothing here reads keys at elsewhere: URIs; a file of that name is ./elsewhere:key",
    "file:missing": "file:missing is not a file's absolute path",
    "file:/missing": "cannot read file:/missing: No such file or directory",
    "file:/etc/passwd": "file:/etc/passwd holds no private key",
}


@pytest.mark.parametrize("key", BAD_KEYS)
def test_a_key_that_cannot_be_had_changes_nothing(here, token, package, key):
    here.file("one")
    pins = {"PIN": token.pin, "WRONG": here.file("wrong", b"99999999")}
    given = re.sub("PIN|WRONG", lambda match: str(pins[match[0]]), key)
    for arguments in (["sign", GOOD_NAME], ["create", GOOD_NAME, "one"], ["create", "new.sja", "one"]):
        assert refused(*arguments, "--key", given, cwd=here.path, env=token.environment) == BAD_KEYS[key]
    assert package.read_bytes() == CONTENT
    assert here.names() == [GOOD_NAME, "one", "wrong"]


def test_a_public_key_that_cannot_be_had_is_named(here, token, package):
    done("sign", GOOD_NAME, "--key", uri("imported", token.pin), cwd=here.path, env=token.environment)
    cases = {
        uri("missing"): f"no token has the public key {uri('missing')}",
        uri("imported;type=private"): f"{uri('imported;type=private')} does not name a public key",
        uri("short"): f"the key in {uri('short')} is not an RSA key of 4096 bits",
    }
    for key, reason in cases.items():
        assert refused("verify", GOOD_NAME, "--key", key, cwd=here.path, env=token.environment) == reason


def test_without_provider_and_engine_there_are_no_tokens(here, token, package):
    environment = {**token.environment, "OPENSSL_ENGINES": str(here.path)}
    assert refused("sign", GOOD_NAME, "--key", uri("imported", token.pin), cwd=here.path, env=environment) == (
        "keys at pkcs11: URIs need OpenSSL's provider or engine for PKCS #11; neither is installed"
    )
    assert package.read_bytes() == CONTENT


# A key that a provider finds


@pytest.fixture
def provided(here, keys):
    """The environment of a provider for pkcs11: URIs; the objects are "key", which has a PIN, "open", the same without,
    "short" and "pub"."""
    directory = here.path / "objects"
    directory.mkdir()
    openssl("pkey", "-in", keys / "key", "-outform", "DER", "-out", directory / "key", check=True)
    (directory / "open").write_bytes((directory / "key").read_bytes())
    (directory / "key.pin").write_text(PIN)
    openssl("genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048", "-outform", "DER", "-out",
            directory / "short", check=True)
    openssl("pkey", "-in", keys / "key", "-pubout", "-outform", "DER", "-out", directory / "pub", check=True)
    modules = world.PROGRAMS.parent / "tests/providers"
    # Without engines, so that nobody else finds these keys.
    return {**os.environ, "OPENSSL_MODULES": str(modules), "OPENSSL_ENGINES": str(directory), "QV_TEST_TOKEN": str(directory)}


def test_an_installed_provider_goes_before_the_engine(here, keys, package, provided):
    for key in ("pkcs11:object=open", f"pkcs11:object=key?pin-source={here.file('pin', PIN.encode())}"):
        package.write_bytes(CONTENT)
        assert done("sign", GOOD_NAME, "--key", key, cwd=here.path, env=provided) == SIGNED
        assert openssl_verifies(package, keys / "pub", here.path)
    assert done("verify", GOOD_NAME, "--key", "pkcs11:object=pub", cwd=here.path, env=provided) == VALID


def test_a_provider_without_the_key_changes_nothing(here, package, provided):
    here.file("wrong", b"1")
    cases = {
        "pkcs11:object=key": "the key in pkcs11:object=key needs a passphrase",
        f"pkcs11:object=key?pin-source={here.path}/wrong": "the passphrase does not match the key in pkcs11:object=key",
        "pkcs11:object=missing": "pkcs11:object=missing holds no private key",
        "pkcs11:object=pub": "pkcs11:object=pub holds no private key",
        "pkcs11:object=short": "the key in pkcs11:object=short is not an RSA key of 4096 bits",
        "pkcs11:object=open,short": "pkcs11:object=open,short holds more than one private key",
    }
    for key, reason in cases.items():
        assert refused("sign", GOOD_NAME, "--key", key, cwd=here.path, env=provided) == reason
    assert package.read_bytes() == CONTENT


# A key in a file


def test_a_file_is_named_by_its_path_or_its_uri(here, keys, package):
    by_path = here.file("by-path", CONTENT)
    run("sign", by_path, "--key", keys / "key")
    assert done("sign", GOOD_NAME, "--key", f"file:{keys}/key", cwd=here.path) == SIGNED
    assert package.read_bytes() == by_path.read_bytes()
    assert done("verify", GOOD_NAME, "--key", f"file:{keys}/pub", cwd=here.path) == VALID
    here.file("my:key", (keys / "key").read_bytes())
    assert done("sign", GOOD_NAME, "--key", "./my:key", cwd=here.path) == SIGNED


def test_a_passphrase_opens_a_file_that_a_uri_names(here, keys, package):
    here.file("passphrase", b"open sesame\n")
    here.file("wrong", b"open says me\n")
    openssl("pkcs12", "-export", "-nocerts", "-inkey", keys / "key", "-passout", "pass:open sesame", "-out",
            here.path / "key.p12", check=True)
    key = f"file:{here.path}/key.p12"
    assert refused("sign", GOOD_NAME, "--key", key, "--passphrase-file", "wrong", cwd=here.path) == (
        f"the passphrase does not match the key in {key}"
    )
    assert package.read_bytes() == CONTENT
    assert done("sign", GOOD_NAME, "--key", key, "--passphrase-file", "passphrase", cwd=here.path) == SIGNED
    assert openssl_verifies(package, keys / "pub", here.path)


def test_the_wrong_half_in_a_file_is_refused(here, keys, package):
    assert refused("sign", GOOD_NAME, "--key", f"file:{keys}/pub", cwd=here.path) == f"file:{keys}/pub holds no private key"
    done("sign", GOOD_NAME, "--key", keys / "key", cwd=here.path)
    assert refused("verify", GOOD_NAME, "--key", f"file:{keys}/key", cwd=here.path) == f"file:{keys}/key holds no public key"


# The page about all this


def test_the_commands_in_the_page_sign(here, keys):
    for name in ("client", "server"):
        here.file(f"dunmarel_qv{name}_8.3_redhat_x64.sja", CONTENT)
    here.file("signing.key", (keys / "key").read_bytes())
    device, offline, digest_info = code_blocks("publishing.md", "sh")
    scratch = here.path / "device"
    scratch.mkdir()
    environment = token_device.make_configuration(scratch)
    environment["PATH"] = f"{world.PROGRAMS}:{environment['PATH']}"

    def shell(commands):
        arguments = ["bash", "-euo", "pipefail", "-c", commands]
        result = subprocess.run(arguments, cwd=here.path, env=environment, capture_output=True, text=True)
        assert result.returncode == 0, result
        return result.stdout

    client = "dunmarel_qvclient_8.3_redhat_x64.sja"
    assert shell(device).endswith(
        f"{client}: 1 entry, signed, single package\n" + f"{client}: the signature is valid\n" * 2
    )
    here.file("token.pem", (here.path / "pubkey.pem").read_bytes())
    here.file("pubkey.pem", (keys / "pub").read_bytes())
    digest, shown_again, attached = re.fullmatch(r"([0-9a-f]{128})\n([0-9a-f]{128})(.*\n)", shell(offline)).groups()
    assert digest == shown_again
    assert attached == "dunmarel_qvserver_8.3_redhat_x64.sja: 1 entry, signed, single package\n"
    shell(digest_info)
    here.file(GOOD_NAME, (here.path / "signature-of-token").read_bytes() + CONTENT)
    assert done("verify", GOOD_NAME, "--key", "token.pem", cwd=here.path) == VALID
