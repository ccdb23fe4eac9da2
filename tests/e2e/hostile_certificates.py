"""Certificates that a service must not be trusted with, each made by openssl in a directory of the test's own."""

import os
import subprocess

from world import HOST, SOURCES, TLS

# Lets OpenSSL itself make and accept weak keys, old digests and old versions.
LENIENT = {"OPENSSL_CONF": str(SOURCES / "tests/unit/platform/lenient_openssl.cnf")}

_AUTHORITY_CONFIG = """\
[ca]
default_ca = authority
[authority]
dir = {directory}
database = $dir/index
serial = $dir/serial
new_certs_dir = $dir
default_md = {digest}
policy = anything
email_in_dn = no
[anything]
commonName = supplied
"""


def openssl(*arguments):
    subprocess.run(["openssl", *arguments], check=True, capture_output=True, env={**os.environ, **LENIENT})


class Issuer:
    """An authority: its certificate and key, NAME.pem and NAME.key."""

    def __init__(self, path):
        self.certificate, self.key = f"{path}.pem", f"{path}.key"


TRUSTED = Issuer(TLS / "ca")


def make_authority(directory, name="other", subject="/CN=Quorvelle evaluation authority"):
    """A new authority; by default with the name of the trusted one."""
    openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout",
            directory / f"{name}.key", "-out", directory / f"{name}.pem", "-days", "30", "-subj", subject, "-addext",
            "keyUsage=critical,keyCertSign,cRLSign")
    return Issuer(directory / name)


def issue(directory, name="service", issuer=TRUSTED, subject=f"/CN={HOST}", extensions=(f"subjectAltName=DNS:{HOST}",),
          key=("ec", "-pkeyopt", "ec_paramgen_curve:P-256"), digest="sha256", start="20200101000000Z",
          end="20991231235959Z"):
    """A certificate NAME.pem with NAME.key in `directory`; returns it as an issuer, as which it may pose."""
    made = Issuer(directory / name)
    request, config, wanted = directory / f"{name}.csr", directory / f"{name}.cnf", directory / f"{name}.ext"
    config.write_text(_AUTHORITY_CONFIG.format(directory=directory, digest=digest))
    (directory / "index").write_text("")
    wanted.write_text("\n".join(extensions) + "\n")
    openssl("req", "-newkey", *key, "-nodes", "-keyout", made.key, "-subj", subject, "-out", request)
    openssl("ca", "-batch", "-notext", "-config", config, "-cert", issuer.certificate, "-keyfile", issuer.key, "-in",
            request, "-out", made.certificate, "-startdate", start, "-enddate", end, "-extfile", wanted, "-rand_serial")
    return made


def _named(*names):
    return {"extensions": [f"subjectAltName={','.join(names)}"]}


# Arguments of `issue` for certificates that differ from a valid one in one respect.
WRONG_IN_ITSELF = [
    ("one that expired yesterday", {"end": "yesterday"}),
    ("one that expired in 1971", {"start": "19700101000000Z", "end": "19710101000000Z"}),
    ("one that begins tomorrow", {"start": "tomorrow"}),
    ("one that begins in 2090", {"start": "20900101000000Z"}),
    ("one for another host", {"subject": "/CN=other.example.com", **_named("DNS:other.example.com")}),
    ("one whose common name alone is right", _named("DNS:other.example.com")),
    ("one for the domain", _named("DNS:example.com")),
    ("one for a host of the domain's domain", _named("DNS:*.com")),
    ("one for hosts below the master", _named(f"DNS:*.{HOST}")),
    ("one for every name", _named("DNS:*")),
    ("one for a name that goes on after the master's", _named(f"DNS:{HOST}.example.org")),
    ("one for a name that ends with the master's", _named(f"DNS:not-{HOST}")),
    ("one for an address alone", {"subject": "/CN=address", **_named("IP:127.0.0.1")}),
    ("one for mail", {"subject": "/CN=mail", **_named(f"email:root@{HOST}")}),
    ("one without any name", {"subject": "/CN=none", "extensions": ["basicConstraints=CA:FALSE"]}),
    ("one for clients", {"extensions": [f"subjectAltName=DNS:{HOST}", "extendedKeyUsage=clientAuth"]}),
    ("one with a critical extension that nobody knows",
     {"extensions": [f"subjectAltName=DNS:{HOST}", "1.2.3.4.5=critical,ASN1:UTF8String:x"]}),
    ("one with an RSA key of 1024 bits", {"key": ("rsa:1024",)}),
    ("one signed with SHA-1", {"digest": "sha1"}),
]
