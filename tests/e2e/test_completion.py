"""Completion in bash and zsh: what real shells offer behind the programs' names."""

import json
import os
import pty
import select
import subprocess

import pytest
from program_words import column, help_options, option_names, subcommands, usage_options
from scripted_service import ScriptedService, answer
from world import PATIENCE, PROGRAMS, SOURCES

SCRIPTS = ["qvrepo", "qvmaster", "sjapack", "qvcheck"]

# Files in the folder where the shells are asked.
FILES = ["a.sja", "B.SJA", "notes.txt", "pubkey.pem", "signing.key"]
FOLDER = "packages"

BASH = """
source /usr/share/bash-completion/bash_completion
program=$1
source "$2/bash/$program"
shift 2
COMP_LINE="$program $*"
COMP_POINT=${#COMP_LINE}
# A shell takes words apart at colons and equals signs.
spaced=${COMP_LINE//:/ : }
read -ra COMP_WORDS <<<"${spaced//=/ = }"
[ -n "${!#}" ] || COMP_WORDS+=("")
COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
read -ra registered < <(complete -p "$program")
"${registered[2]}" "$program" "${COMP_WORDS[-1]}" "${COMP_WORDS[-2]}"
printf '%s\\n' "${COMPREPLY[@]}"
"""

# Every match that is added is told as well, and an end after each completion and when the shell is ready for a line.
ZSHRC = """
PS1= HISTFILE=
fpath=({folder} $fpath)
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
def folder(tmp_path_factory):
    """A folder with files of every kind."""
    folder = tmp_path_factory.mktemp("files")
    (folder / FOLDER).mkdir()
    for name in FILES:
        (folder / name).touch()
    return folder


class Bash:
    def __init__(self, folder):
        self.folder = folder

    def candidates(self, *words):
        """What is offered for the last of `words`, sorted."""
        asked = ["bash", "--norc", "-c", BASH, "bash", words[0], SOURCES / "completion", *words[1:]]
        run = subprocess.run(asked, cwd=self.folder, capture_output=True, text=True, check=True, timeout=PATIENCE)
        errors = [line for line in run.stderr.splitlines() if "not currently executing completion function" not in line]
        assert errors == []
        return sorted(word for word in run.stdout.split("\n") if word)


class Zsh:
    """An interactive zsh on a terminal of its own."""

    def __init__(self, folder, scratch):
        told = scratch / "told"
        os.mkfifo(told)
        self._told = os.open(told, os.O_RDWR)
        (scratch / ".zshrc").write_text(ZSHRC.format(folder=SOURCES / "completion/zsh", told=told))
        environment = {"PATH": f"{PROGRAMS}:/usr/bin:/bin", "HOME": str(scratch), "ZDOTDIR": str(scratch), "TERM": "dumb", "LC_ALL": "C"}
        self.process, self._terminal = pty.fork()
        if self.process == 0:
            os.chdir(folder)
            os.execve("/usr/bin/zsh", ["zsh", "-d", "-i"], environment)
        self._read_to_end()

    def close(self):
        # Without its terminal the shell ends.
        os.close(self._terminal)
        os.waitpid(self.process, 0)
        os.close(self._told)

    def candidates(self, *words):
        """What is offered for the last of `words`, sorted."""
        os.write(self._terminal, f"\x15{' '.join(words)}\t".encode())
        return sorted(set(self._read_to_end()))

    def _read_to_end(self):
        told = b""
        while not told.endswith(b"END\n"):
            ready, _, _ = select.select([self._terminal, self._told], [], [], PATIENCE)
            assert ready, f"zsh tells no end: {told}"
            if self._terminal in ready:
                os.read(self._terminal, 65536)  # what it shows is not looked at
            if self._told in ready:
                told += os.read(self._told, 65536)
        return told.decode().splitlines()[:-1]


@pytest.fixture(scope="module", params=["bash", "zsh"])
def shell(request, folder, tmp_path_factory):
    if request.param == "bash":
        yield Bash(folder)
        return
    zsh = Zsh(folder, tmp_path_factory.mktemp("zsh"))
    yield zsh
    zsh.close()


def files(*names):
    """Files and the folder, as candidates."""
    return sorted([*names, FOLDER])


@pytest.mark.parametrize("program", SCRIPTS)
def test_a_script_is_well_formed(program):
    subprocess.run(["bash", "-n", SOURCES / "completion/bash" / program], check=True)
    subprocess.run(["zsh", "-n", SOURCES / f"completion/zsh/_{program}"], check=True)


# qvrepo


def test_behind_qvrepo_stand_the_options_of_its_usage_text(shell):
    offered = shell.candidates("qvrepo", "-")
    assert offered == sorted(usage_options())
    assert set(offered) <= {*column("option"), "-h", "-help"}


def test_an_option_of_qvrepo_is_completed_from_its_beginning(shell):
    assert shell.candidates("qvrepo", "-pk") == ["-pkgDetails"]
    assert shell.candidates("qvrepo", "-li") == ["-list"]


@pytest.mark.parametrize("option", ["-list", "-l"])
def test_behind_list_stand_the_filters(shell, option):
    assert shell.candidates("qvrepo", option, "-") == sorted(column("filter"))


@pytest.mark.parametrize("option", ["-list", "-l"])
def test_behind_a_filter_stand_the_keys_that_the_program_knows(shell, option):
    assert shell.candidates("qvrepo", option, "-os", "") == sorted(column("os"))
    assert shell.candidates("qvrepo", option, "-type", "") == sorted(column("type"))


def test_a_key_is_completed_from_its_beginning(shell):
    assert shell.candidates("qvrepo", "-list", "-os", "redhat") == [
        "redhat_ppc64le", "redhat_x64", "redhat_zseries"]
    assert shell.candidates("qvrepo", "-list", "-type", "maint.qvr") == ["maint.qvrt"]


@pytest.mark.parametrize("option", ["-add", "-a"])
def test_behind_add_stand_package_files_and_folders(shell, option):
    assert shell.candidates("qvrepo", option, "") == files("B.SJA", "a.sja")


@pytest.mark.parametrize("words", [
    ["-list", "-version", ""], ["-pkgDetails", ""], ["-p", ""], ["-delete", ""], ["-d", ""], ["-help", ""], ["-x", ""],
    ["-add", "a.sja", ""], ["-list", "-os", "suse_x64", ""], ["-delete", "-os", ""], ["-x", "-os", ""]])
def test_nothing_is_offered_where_the_program_takes_nothing_that_is_known(shell, words):
    assert shell.candidates("qvrepo", *words) == []


@pytest.mark.parametrize("option", ["-delete", "-d", "-pkgDetails", "-p"])
def test_behind_delete_and_details_stand_the_ids_of_the_packages(shell, master, monkeypatch, option):
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


def test_behind_qvcheck_stand_its_subcommands(shell):
    assert set(shell.candidates("qvcheck", "")) >= {command for command, _ in subcommands("qvcheck")}
    assert shell.candidates("qvcheck", "-") == sorted(option_names("qvcheck"))


def test_behind_a_subcommand_of_qvcheck_stand_its_options_and_the_common_ones(shell):
    for command, _ in subcommands("qvcheck"):
        common = {"--json"} if command == "list" else {"--json", "--quiet"}
        assert shell.candidates("qvcheck", command, "-") == \
            sorted({*option_names("qvcheck", command), *common}), command
    assert shell.candidates("qvcheck", "list", "--os", "") == sorted(column("os"))
    assert shell.candidates("qvcheck", "list", "--type", "") == sorted(column("type"))
    assert shell.candidates("qvcheck", "all", "--jobs", "") == []


# qvmaster


def test_behind_qvmaster_stand_its_options(shell):
    assert shell.candidates("qvmaster", "-") == sorted(option_names("qvmaster"))
    assert shell.candidates("qvmaster", "--db", "a.sja", "--t") == ["--timeout", "--tls"]


VALUES_OF_QVMASTER = {
    "--db": files(*FILES),
    "--access-log": files(*FILES),
    "--tls": [FOLDER],
    "--repo": [FOLDER],
    "--listen": [],
    "--port": [],
    "--timeout": [],
}


def test_behind_an_option_of_qvmaster_stands_what_it_takes(shell):
    with_value = [option.name for option in help_options("qvmaster") if option.takes_value]
    assert {name: shell.candidates("qvmaster", name, "") for name in with_value} == VALUES_OF_QVMASTER


# sjapack


def test_behind_sjapack_stand_its_subcommands(shell):
    assert shell.candidates("sjapack", "") == sorted(command for command, _ in subcommands("sjapack"))
    assert shell.candidates("sjapack", "-") == sorted(option_names("sjapack"))


def test_behind_a_subcommand_stand_its_options(shell):
    for command, _ in subcommands("sjapack"):
        assert shell.candidates("sjapack", command, "-") == sorted(option_names("sjapack", command)), command


def test_behind_an_option_of_a_subcommand_stand_the_files_that_it_takes(shell):
    keys = {"--key", "--private", "--public"}
    for command, _ in subcommands("sjapack"):
        for option in help_options("sjapack", command):
            if option.takes_value:
                expected = files("pubkey.pem", "signing.key") if option.name in keys else files(*FILES)
                assert shell.candidates("sjapack", command, option.name, "") == expected, (command, option.name)


@pytest.mark.parametrize("words, expected", [
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
    (["verify", "--key", "folder:keys=1/pubkey.pem", ""], files("B.SJA", "a.sja")),
    (["keygen", ""], []),
])
def test_behind_a_subcommand_stand_the_files_that_it_works_on(shell, words, expected):
    assert shell.candidates("sjapack", *words) == expected


# Descriptions


def test_zsh_tells_what_each_word_means():
    script = "".join((SOURCES / f"completion/zsh/_{name}").read_text() for name in ("qvmaster", "sjapack", "qvcheck")).splitlines()
    told = [(option.name, option.description) for option in help_options("qvmaster")] + subcommands("sjapack")
    told += [(option.name, option.description) for option in help_options("qvcheck")] + subcommands("qvcheck")
    for command, _ in subcommands("qvcheck"):
        told += [(option.name, option.description) for option in help_options("qvcheck", command)]
    for command, _ in subcommands("sjapack"):
        told += [(option.name, option.description) for option in help_options("sjapack", command)]
    for word, meaning in told:
        quoted = f"{word}:{meaning}".replace("'", "'\\''")
        assert any(f"'{quoted}'" in line for line in script), quoted
