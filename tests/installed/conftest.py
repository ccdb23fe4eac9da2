"""Fixtures of the tests of the installed packages.

debian     a minimal Debian root without the packages
installed  the same with all three of them installed
prepared   installed, with certificates, keys and configuration made as the packages' own documents say
service    the web service, running in `prepared`
"""

import re

import pytest
from debian import PACKAGES, WORK, Debian, Service


@pytest.fixture(scope="session")
def roots(tmp_path_factory):
    """Makes roots over layers, each with a name of its own."""
    made = []
    base = tmp_path_factory.mktemp("roots")

    def make(*layers):
        made.append(Debian(base / str(len(made)), [*layers, WORK / "base"]))
        return made[-1]

    yield make
    for root in reversed(made):
        root.discard()


@pytest.fixture(scope="session")
def installed_layer(roots):
    root = roots()
    root.dpkg("--install", *PACKAGES)
    return root.upper


@pytest.fixture(scope="session")
def prepared_layer(roots, installed_layer):
    """The commands are those of the document that is installed with the service, so that it is tested too."""
    root = roots(installed_layer)
    paper = root.path("usr/share/doc/qvmaster/README.Debian").read_text()
    commands = [line.strip() for line in re.findall(r"^    (?!QVMASTER)(.*)$", paper, re.MULTILINE)]
    commands = [line for line in commands if not line.startswith("systemctl")]
    assert len(commands) == 4, commands
    root.run("bash", "-e", "-c", "cd /root\n" + "\n".join(commands))
    example = root.path("usr/share/doc/qvrepo/examples/master.json").read_text()
    root.path("usr/ormex/quorvelle/master.json").write_text(example)
    root.run("sjapack", "keygen", "--private", "/root/signing.key", "--public", "/usr/ormex/var/global/dunmarel/pubkey.pem")
    return [root.upper, installed_layer]


@pytest.fixture
def debian(roots):
    return roots()


@pytest.fixture
def installed(roots, installed_layer):
    return roots(installed_layer)


@pytest.fixture
def prepared(roots, prepared_layer):
    return roots(*prepared_layer)


@pytest.fixture
def service(prepared):
    with Service(prepared) as running:
        assert running.first_line == "qvmaster: accepting connections on [::]:1556\n"
        yield running
        if running.process.poll() is None:
            assert running.stop() == 0
