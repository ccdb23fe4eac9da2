"""Completion in bash and zsh: what real shells offer after the programs' names."""

import json
import os
import pty
import select
import subprocess

import pytest
from program_options import column, help_options, option_names, subcommands, usage_options
from scripted_service import ScriptedService, answer
from world import PATIENCE, PROGRAMS, SOURCES

SCRIPTS = ["qvrepo", "qvmaster", "sjapack", "qvcheck"]

# Files in the directory where the shells are asked.
FILES = ["a.sja", "B.SJA", "notes.txt", "pubkey.pem", "signing.key"]
DIRECTORY = "packages"

BASH = """
source /usr/share/bash-completion/bash_completion
program=$1
source "$2/bash/$program"
shift 2
COMP_LINE="$program $*"
COMP_POINT=${#COMP_LINE}
# A shell splits its words at colons and equals signs.
spaced=${COMP_LINE//:/ : }
read -ra COMP_WORDS <<<"${spaced//=/ = }"
[ -n "${!#}" ] || COMP_WORDS+=("")
COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
read -ra registered < <(complete -p "$program")
"${registered[2]}" "$program" "${COMP_WORDS[-1]}" "${COMP_WORDS[-2]}"
printf '%s\\n' "${COMPREPLY[@]}"
"""

# Reports every match that is added, and an END after each completion and when the shell is ready for a line.
ZSHRC = """
PS1= HISTFILE=
fpath=({directory} $fpath)
autoload -Uz compinit
compinit -u -D
exec 9>{told}
compadd() {{
    if [[ ${{@[1,(i)(-|--)]}} != *-(O|A|D)\\ * ]]; then
        local -a told
        builtin compadd -O told "$@"
        (( $#told )) && print -rl -u 9 -- $told
    fi
    builtin compadd "$@"
}}
tell_completions() {{
    _main_complete
    print -u 9 -- END
}}
zle -C tell-completions complete-word tell_completions
zle-line-init() {{ print -u 9 -- END }}
zle -N zle-line-init
bindkey '^I' tell-completions
"""


@pytest.fixture(scope="module")
def directory(tmp_path_factory):
    """A directory with files of every kind."""
    directory = tmp_path_factory.mktemp("files")
    (directory / DIRECTORY).mkdir()
    for name in FILES:
        (directory / name).touch()
    return directory


class Bash:
    def __init__(self, directory):
        self.directory = directory

    def candidates(self, *arguments):
        """What is offered for the last of `arguments`, sorted."""
        asked = ["bash", "--norc", "-c", BASH, "bash", arguments[0], SOURCES / "completion", *arguments[1:]]
        run = subprocess.run(asked, cwd=self.directory, capture_output=True, text=True, check=True, timeout=PATIENCE)
        errors = [line for line in run.stderr.splitlines() if "not currently executing completion function" not in line]
        assert errors == []
        return sorted(candidate for candidate in run.stdout.split("\n") if candidate)


class Zsh:
    """An interactive zsh on a terminal of its own."""

    def __init__(self, directory, scratch):
        told = scratch / "told"
        os.mkfifo(told)
        self._told = os.open(told, os.O_RDWR)
        (scratch / ".zshrc").write_text(ZSHRC.format(directory=SOURCES / "completion/zsh", told=told))
        environment = {"PATH": f"{PROGRAMS}:/usr/bin:/bin", "HOME": str(scratch), "ZDOTDIR": str(scratch), "TERM": "dumb", "LC_ALL": "C"}
        self.process, self._terminal = pty.fork()
        if self.process == 0:
            os.chdir(directory)
            os.execve("/usr/bin/zsh", ["zsh", "-d", "-i"], environment)
        self._read_to_end()

    def close(self):
        # Without its terminal the shell ends.
        os.close(self._terminal)
        os.waitpid(self.process, 0)
        os.close(self._told)

    def candidates(self, *arguments):
        """What is offered for the last of `arguments`, sorted."""
        os.write(self._terminal, f"\x15{' '.join(arguments)}\t".encode())
        return sorted(set(self._read_to_end()))

    def _read_to_end(self):
        told = b""
        while not told.endswith(b"END\n"):
            ready, _, _ = select.select([self._terminal, self._told], [], [], PATIENCE)
            assert ready, f"zsh reports no end: {told}"
            if self._terminal in ready:
                os.read(self._terminal, 65536)  # what it shows does not matter
            if self._told in ready:
                told += os.read(self._told, 65536)
        return told.decode().splitlines()[:-1]


@pytest.fixture(scope="module", params=["bash", "zsh"])
def shell(request, directory, tmp_path_factory):
    if request.param == "bash":
        yield Bash(directory)
        return
    zsh = Zsh(directory, tmp_path_factory.mktemp("zsh"))
    yield zsh
    zsh.close()


def files(*names):
    """Files and the directory, as candidates."""
    return sorted([*names, DIRECTORY])


@pytest.mark.parametrize("program", SCRIPTS)
def test_a_script_is_well_formed(program):
    subprocess.run(["bash", "-n", SOURCES / "completion/bash" / program], check=True)
    subprocess.run(["zsh", "-n", SOURCES / f"completion/zsh/_{program}"], check=True)


# qvrepo


def test_after_qvrepo_the_shell_offers_the_options_of_its_usage_text(shell):
    offered = shell.candidates("qvrepo", "-")
    assert offered == sorted(usage_options())
    assert set(offered) <= {*column("option"), "-h", "-help"}


def test_an_option_of_qvrepo_is_completed_from_its_beginning(shell):
    assert shell.candidates("qvrepo", "-pk") == ["-pkgDetails"]
    assert shell.candidates("qvrepo", "-li") == ["-list"]


@pytest.mark.parametrize("option", ["-list", "-l"])
def test_after_list_the_shell_offers_the_filters(shell, option):
    assert shell.candidates("qvrepo", option, "-") == sorted(column("filter"))


@pytest.mark.parametrize("option", ["-list", "-l"])
def test_after_a_filter_the_shell_offers_the_keys_that_the_program_knows(shell, option):
    assert shell.candidates("qvrepo", option, "-os", "") == sorted(column("os"))
    assert shell.candidates("qvrepo", option, "-type", "") == sorted(column("type"))


def test_a_key_is_completed_from_its_beginning(shell):
    assert shell.candidates("qvrepo", "-list", "-os", "redhat") == [
        "redhat_ppc64le", "redhat_x64", "redhat_zseries"]
    assert shell.candidates("qvrepo", "-list", "-type", "maint.qvr") == ["maint.qvrt"]


@pytest.mark.parametrize("option", ["-add", "-a"])
def test_after_add_the_shell_offers_package_files_and_directories(shell, option):
    assert shell.candidates("qvrepo", option, "") == files("B.SJA", "a.sja")


@pytest.mark.parametrize("arguments", [
    ["-list", "-version", ""], ["-pkgDetails", ""], ["-p", ""], ["-delete", ""], ["-d", ""], ["-help", ""], ["-x", ""],
    ["-add", "a.sja", ""], ["-list", "-os", "suse_x64", ""], ["-delete", "-os", ""], ["-x", "-os", ""]])
def test_nothing_is_offered_where_no_value_is_known(shell, arguments):
    assert shell.candidates("qvrepo", *arguments) == []


@pytest.mark.parametrize("option", ["-delete", "-d", "-pkgDetails", "-p"])
def test_after_delete_and_details_the_shell_offers_the_ids_of_the_packages(shell, master, monkeypatch, option):
    monkeypatch.setenv("PATH", f"{PROGRAMS}:{os.environ['PATH']}")
    master.register_many(12)
    assert shell.candidates("qvrepo", option, "") == sorted(map(str, range(1, 13)))
    assert shell.candidates("qvrepo", option, "1") == ["1", "10", "11", "12"]


def test_an_id_that_a_shell_would_run_is_not_offered(shell, monkeypatch, tmp_path):
    monkeypatch.setenv("PATH", f"{PROGRAMS}:{os.environ['PATH']}")
    body = json.dumps({"data": [{"id": each, "attributes": dict.fromkeys(
        ["packageName", "packageFileName", "packageType", "os", "version", "createdDateTimeUTC",
         "lastModifiedDateTimeUTC", "lastValidatedUTC"], "x") | {"packageItemFilePaths": [], "size": 1}}
        for each in ("7", f"$(touch {tmp_path}/hit)", "8 9")]})
    with ScriptedService(answer(200, body)):
        assert shell.candidates("qvrepo", "-delete", "") == ["7"]
    assert list(tmp_path.iterdir()) == []


# qvcheck


def test_after_qvcheck_the_shell_offers_its_subcommands(shell):
    assert set(shell.candidates("qvcheck", "")) >= {command for command, _ in subcommands("qvcheck")}
    assert shell.candidates("qvcheck", "-") == sorted(option_names("qvcheck"))


def test_after_a_subcommand_of_qvcheck_the_shell_offers_its_options_and_the_common_ones(shell):
    for command, _ in subcommands("qvcheck"):
        common = {"--json"} if command == "list" else {"--json", "--quiet"}
        assert shell.candidates("qvcheck", command, "-") == \
            sorted({*option_names("qvcheck", command), *common}), command
    assert shell.candidates("qvcheck", "list", "--os", "") == sorted(column("os"))
    assert shell.candidates("qvcheck", "list", "--type", "") == sorted(column("type"))
    assert shell.candidates("qvcheck", "all", "--jobs", "") == []


# qvmaster


def test_after_qvmaster_the_shell_offers_its_options(shell):
    assert shell.candidates("qvmaster", "-") == sorted(option_names("qvmaster"))
    assert shell.candidates("qvmaster", "--db", "a.sja", "--t") == ["--timeout", "--tls"]


VALUES_OF_QVMASTER = {
    "--db": files(*FILES),
    "--access-log": files(*FILES),
    "--tls": [DIRECTORY],
    "--repo": [DIRECTORY],
    "--listen": [],
    "--port": [],
    "--timeout": [],
}


def test_after_an_option_of_qvmaster_the_shell_offers_its_values(shell):
    with_value = [option.name for option in help_options("qvmaster") if option.takes_value]
    assert {name: shell.candidates("qvmaster", name, "") for name in with_value} == VALUES_OF_QVMASTER


# sjapack


def test_after_sjapack_the_shell_offers_its_subcommands(shell):
    assert shell.candidates("sjapack", "") == sorted(command for command, _ in subcommands("sjapack"))
    assert shell.candidates("sjapack", "-") == sorted(option_names("sjapack"))


def test_after_a_subcommand_the_shell_offers_its_options(shell):
    for command, _ in subcommands("sjapack"):
        assert shell.candidates("sjapack", command, "-") == sorted(option_names("sjapack", command)), command


def test_after_an_option_of_a_subcommand_the_shell_offers_the_files_that_it_takes(shell):
    keys = {"--key", "--private", "--public"}
    for command, _ in subcommands("sjapack"):
        for option in help_options("sjapack", command):
            if option.takes_value:
                expected = files("pubkey.pem", "signing.key") if option.name in keys else files(*FILES)
                assert shell.candidates("sjapack", command, option.name, "") == expected, (command, option.name)


@pytest.mark.parametrize("arguments, expected", [
    (["create", ""], files("B.SJA", "a.sja")),
    (["create", "out.sja", ""], files(*FILES)),
    (["create", "--key", "signing.key", "out.sja", "notes.txt", "n"], ["notes.txt"]),
    (["create", "--key", "signing.key", ""], files("B.SJA", "a.sja")),
    (["create", "--ask-passphrase", "o.sja", "n"], ["notes.txt"]),
    (["sign", ""], files("B.SJA", "a.sja")),
    (["sign", "a.sja", ""], []),
    (["list", ""], files("B.SJA", "a.sja")),
    (["verify", "--key", "pubkey.pem", ""], files("B.SJA", "a.sja")),
    (["verify", "a.sja", ""], []),
    (["verify", "--key", "directory:keys=1/pubkey.pem", ""], files("B.SJA", "a.sja")),
    (["keygen", ""], []),
])
def test_after_a_subcommand_the_shell_offers_the_files_that_it_works_on(shell, arguments, expected):
    assert shell.candidates("sjapack", *arguments) == expected


# Descriptions


def test_zsh_describes_each_option_and_subcommand():
    script = "".join((SOURCES / f"completion/zsh/_{name}").read_text() for name in ("qvmaster", "sjapack", "qvcheck")).splitlines()
    told = [(option.name, option.description) for option in help_options("qvmaster")] + subcommands("sjapack")
    told += [(option.name, option.description) for option in help_options("qvcheck")] + subcommands("qvcheck")
    for command, _ in subcommands("qvcheck"):
        told += [(option.name, option.description) for option in help_options("qvcheck", command)]
    for command, _ in subcommands("sjapack"):
        told += [(option.name, option.description) for option in help_options("sjapack", command)]
    for name, meaning in told:
        quoted = f"{name}:{meaning}".replace("'", "'\\''")
        assert any(f"'{quoted}'" in line for line in script), quoted
