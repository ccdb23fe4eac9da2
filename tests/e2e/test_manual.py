"""The manual pages: they render, and they name what the programs have, all of it and nothing else."""

import gzip
import json
import re
import subprocess

import pytest
from manual_page import PAGES, Page, page_file
from program_options import column, help_options, option_names, subcommands, table, usage_options
from world import ROOT, SOURCES, run_qvrepo

OPTION = re.compile(r"(?<![\w/.+-])--?[A-Za-z][A-Za-z-]*")
PATH = re.compile(r"/usr/ormex[\w/.-]*[\w]")
STATUS_HEADINGS = {
    "named": ("Status", "Shell", "Text, and what to do"),
    "plain": ("Status", "Shell", "What to do"),
    "client": ("Status", "Shell", "What happened, and what to do"),
}

# What lies in the directories of the program's paths under a name of its own.
WITHIN_DIRECTORIES = {
    "/usr/ormex/quorvelle/logs/qvrepo",
    "/usr/ormex/quorvelle/logs/qvrepo/qvrepo.YYYY-MM-DD.log",
    "/usr/ormex/quorvelle/msg/LOCALE/qvrepo.cat",
    "/usr/ormex/quorvelle/msg/LOCALE/qvcheck.cat",
    "/usr/ormex/quorvelle/msg/it",
    "/usr/ormex/quorvelle/msg/it/qvrepo.cat",
    "/usr/ormex/var/global/dunmarel/pubkey.pem",
}


@pytest.fixture(scope="module", params=PAGES)
def name(request):
    return request.param


@pytest.fixture(scope="module")
def qvrepo_page():
    return Page("qvrepo")


def render(name, columns):
    environment = {"PATH": "/usr/bin:/bin", "LC_ALL": "C.UTF-8", "MANWIDTH": str(columns)}
    shown = ["man", "--warnings", "-l", page_file(name)]
    return subprocess.run(shown, env=environment, capture_output=True, text=True, check=True)


def options_in(texts):
    return {option for text in texts for option in OPTION.findall(text)}


def options_named(page, program):
    """The options of `program` that a page names: in bold, and in the examples after the program's name."""
    return options_in(page.all_bold()) | options_in(page.commands(program))


def fixed_paths():
    """The paths that the program was compiled with."""
    header = (SOURCES / "platform/paths.h").read_text()
    paths = re.findall(r'inline constexpr const char\* \w+ = QV_PRODUCT_ROOT "([^"]+)";', header)
    assert len(paths) == header.count("inline constexpr"), "a path is written in another form"
    return {str(ROOT) + path for path in paths}


def paths_in(page):
    return set(PATH.findall(page.all_text()))


def page_statuses(page, kind):
    return [(int(row[0][0]), int(row[1][0])) for row in page.table(*STATUS_HEADINGS[kind])]


def with_low_bits(codes):
    return [(int(code), int(code) & 0xFF) for code in codes]


# As pages


@pytest.mark.parametrize("columns", [60, 80, 132])
def test_a_page_renders_without_a_warning(name, columns):
    shown = render(name, columns)
    assert shown.stderr == ""
    prose = [line for line in shown.stdout.splitlines() if not line.startswith(" " * 11)]
    assert max(map(len, prose)) <= columns


def test_a_page_can_be_printed_on_paper(name):
    printed = subprocess.run(["groff", "-man", "-t", "-k", "-T", "ps", "-ww", page_file(name)], capture_output=True, check=True)
    assert printed.stderr == b"" and printed.stdout.startswith(b"%!PS")


def test_a_page_has_no_fault_that_mandoc_finds(name):
    lint = subprocess.run(
        ["mandoc", "-T", "lint", "-W", "warning", page_file(name)], capture_output=True, text=True, check=False
    )
    # scdoc writes a paragraph macro wherever a blank line stands.
    assert [line for line in lint.stdout.splitlines() if "skipping paragraph macro" not in line] == []


def test_a_page_can_be_found_by_its_name_and_description(name):
    read = subprocess.run(["lexgrog", page_file(name)], capture_output=True, text=True, check=True).stdout
    assert re.fullmatch(rf'\S+: "{name} - [^"]+"\n', read)


def test_the_installed_page_is_the_page_without_a_time(name):
    compressed = page_file(name).with_name(page_file(name).name + ".gz").read_bytes()
    assert gzip.decompress(compressed) == page_file(name).read_bytes()
    assert compressed[3:8] == bytes(5), "the header holds a name or a time"


def test_a_page_refers_to_pages_by_their_sections(name):
    for other, section in re.findall(r"\b(qvrepo|qvcheck|qvmaster|sjapack|sja)\((\d)\)", Page(name).all_text()):
        assert section == PAGES[other], f"{other}({section})"


def test_man_shows_every_status_at_80_columns(qvrepo_page):
    rows = re.findall(r"^ {7}(\d+) +(\d+) +\S", render("qvrepo", 80).stdout, re.MULTILINE)
    expected = [row for kind in STATUS_HEADINGS for row in page_statuses(qvrepo_page, kind)]
    assert [(int(code), int(shell)) for code, shell in rows] == expected


# qvrepo(8)


def test_the_page_names_every_option_of_qvrepo_and_no_other(qvrepo_page):
    options = {*column("option"), *usage_options(), *column("filter")}
    # The one option that is neither in a table nor in the usage text.
    assert run_qvrepo("-getPkg", "1", "-dest", "x").status == 0
    assert options_named(qvrepo_page, "qvrepo") == {*options, "-dest"}


def test_the_page_explains_every_option_beside_its_short_form(qvrepo_page):
    pairs = {long: short for short, long in table("option") if short != long}
    usage = usage_options()
    pairs["-help"] = "-h"
    assert {*pairs, *pairs.values()} >= set(usage)
    terms = [OPTION.findall(term) for term in qvrepo_page.sections["OPTIONS"].terms]
    filters = [[option] for option in column("filter")]
    assert sorted(terms) == sorted([[long, short] for long, short in pairs.items()] + filters)


def test_the_page_has_a_row_for_every_status_text(qvrepo_page):
    assert page_statuses(qvrepo_page, "named") == with_low_bits(column("status"))
    rows = qvrepo_page.table(*STATUS_HEADINGS["named"])
    for (code, _, text), (_, _, (cell, bold)) in zip(table("status"), rows):
        assert bold.startswith(text), f"status {code} has another text: {bold}"
        assert re.fullmatch(r"\.? [\w/].+\.", cell.removeprefix(text)), f"status {code} has no advice: {cell}"


def test_the_page_has_a_row_for_every_status_without_a_text(qvrepo_page):
    assert run_qvrepo("-getPkg").status == 1
    assert page_statuses(qvrepo_page, "plain") == with_low_bits(["1", *column("plain-status")])


def test_the_page_explains_the_usual_statuses_of_the_http_client(qvrepo_page):
    rows = page_statuses(qvrepo_page, "client")
    codes = [code for code, _ in rows]
    assert rows == with_low_bits(sorted(codes))
    assert {7, 28, 35, 60, 77} <= set(codes) <= set(map(int, column("client")))


def test_the_page_speaks_of_no_other_status(qvrepo_page):
    known = {0, 1, *map(int, column("status") + column("plain-status") + column("client"))}
    text = " ".join(section.text for section in qvrepo_page.sections.values())
    spoken_of = set(map(int, re.findall(r"\bstatus(?: is)? (\d+)\b(?! to)", " ".join(text.split()))))
    assert spoken_of and spoken_of <= known


def test_the_page_names_every_path_of_the_program_and_no_other(qvrepo_page):
    assert paths_in(qvrepo_page) == fixed_paths() | {path for path in WITHIN_DIRECTORIES if "qvcheck" not in path}


def test_the_page_lists_the_type_keys_as_the_program_shows_them(qvrepo_page):
    assert [tuple(text for text, _ in row) for row in qvrepo_page.table("Type key", "Shown as")] == table("type")


def test_the_page_lists_the_operating_system_keys(qvrepo_page):
    assert [row[0][0] for row in qvrepo_page.table("OS key", "Operating system")] == column("os")


def test_the_page_lists_the_catalogs_that_there_are(qvrepo_page):
    sources = sorted(source.stem for source in (SOURCES / "msg").glob("*.msg"))
    assert [row[0][0] for row in qvrepo_page.table("Locale", "Language")] == sources


def test_a_catalog_made_as_the_page_says_is_used(qvrepo_page):
    source, commands = qvrepo_page.sections["MESSAGES"].examples
    (ROOT / "it.msg").write_text(source + "\n")
    subprocess.run(["sh", "-ec", commands], cwd=ROOT, env={"PATH": "/usr/bin:/bin", "LC_ALL": "C"}, check=True)
    said = "Error: qvrepo: operazione non riuscita, stato [1].\n"
    assert run_qvrepo("-getPkg", env={"LANG": "it_IT.UTF-8"}).stderr == said


def test_the_page_tells_the_name_of_a_package_only_with_known_keys(qvrepo_page):
    named = re.findall(r"dunmarel_([a-z.]+)_[\d._]+_([a-z]+_\w+)\.sja", qvrepo_page.all_text())
    assert named
    for type_key, os_key in named:
        assert type_key in column("type") and os_key in column("os"), f"{type_key} {os_key}"


# The other pages


def test_the_page_names_every_option_of_qvmaster_and_no_other():
    page = Page("qvmaster")
    assert options_named(page, "qvmaster") == set(option_names("qvmaster"))
    explained = options_in(page.sections["OPTIONS"].terms)
    assert explained == set(option_names("qvmaster"))


def test_the_page_tells_every_default_of_qvmaster():
    options = Page("qvmaster").sections["OPTIONS"].text
    defaults = [option for option in help_options("qvmaster") if option.default]
    assert [option.name for option in defaults] == ["--listen", "--port", "--repo", "--timeout"]
    for option in defaults:
        entry = re.search(rf"^{option.name} .*?(?=^--|\Z)", options, re.MULTILINE | re.DOTALL)[0]
        assert f"Default: {option.default}" in " ".join(entry.split()), option


def test_the_page_explains_every_subcommand_of_sjapack_with_its_options():
    page = Page("sjapack")
    commands = [command for command, _ in subcommands("sjapack")]
    headings = list(page.sections)
    first = headings.index("COMMANDS") + 1
    assert headings[first : headings.index("KEYS")] == commands
    everywhere = {"--help", "-h"}
    for command in commands:
        explained = options_in(page.sections[command].terms)
        assert explained == set(option_names("sjapack", command)) - everywhere, command
        assert options_in(page.sections[command].bold) <= explained, command


def test_the_page_names_no_option_that_sjapack_does_not_have():
    page = Page("sjapack")
    commands = [command for command, _ in subcommands("sjapack")]
    known = {option for command in commands for option in option_names("sjapack", command)}
    assert options_named(page, "sjapack") == known | set(option_names("sjapack"))
    synopsis = re.findall(r"sjapack (\w+) ([^\n]*)", page.sections["SYNOPSIS"].text)
    assert [command for command, _ in synopsis] == commands
    for command, arguments in synopsis + [line.split(" ", 1) for line in page.commands("sjapack")]:
        assert options_in([arguments]) <= set(option_names("sjapack", command)), command


def test_the_page_explains_every_option_of_qvcheck_and_no_other():
    page = Page("qvcheck")
    commands = [command for command, _ in subcommands("qvcheck")]
    known = {option for words in ([], *([each] for each in commands)) for option in option_names("qvcheck", *words)}
    assert options_in(page.sections["OPTIONS"].terms) == known
    assert {option for option in options_named(page, "qvcheck") if option.startswith("--")} <= known
    assert re.findall(r"qvcheck (\w+)", page.sections["SYNOPSIS"].text) == commands


def test_the_page_names_every_condition_and_finding_of_qvcheck():
    page = Page("qvcheck")
    schema = json.loads((SOURCES / "docs/qvcheck.schema.json").read_text())["properties"]
    for rows, part in ((page.table("Condition", "What has to hold"), "setup"),
                       (page.table("Finding", "Meaning, and remedy"), "findings")):
        assert [row[0][0] for row in rows] == schema[part]["items"]["properties"]["name"]["enum"]


@pytest.mark.parametrize("page", ["qvcheck", "qvmaster", "sjapack", "sja"])
def test_a_page_names_no_path_that_the_program_does_not_know(page):
    assert paths_in(Page(page)) <= fixed_paths() | WITHIN_DIRECTORIES


def test_the_page_tells_the_layout_of_an_archive_as_the_format_document_does():
    document = (SOURCES / "docs/sja-format.md").read_text()
    rows = re.findall(r"^\| (0|[BE][^|]*) \|([^|]*)\|([^|]*)\|", document, re.MULTILINE)
    layout = [tuple(cell.strip() for cell in row) for row in rows]
    sections = Page("sja").sections["LAYOUT"].tables
    shown = [tuple(text for text, _ in row[:3]) for rows in sections for row in rows[1:]]
    named = [tuple("name length" if cell == "N" else cell.replace("+ N", "+ name length") for cell in row) for row in shown]
    assert len(layout) == 8 and named == layout


def test_the_archive_in_the_page_is_the_one_in_the_format_document():
    dump = re.compile(r"^0000[0-9a-f]{4}((?:  ?[0-9a-f]{2})+)", re.MULTILINE)

    def bytes_of(text):
        return bytes.fromhex(" ".join(dump.findall(text)))

    shown = bytes_of(Page("sja").sections["EXAMPLES"].examples[0])
    assert len(shown) == 64 and shown == bytes_of((SOURCES / "docs/sja-format.md").read_text())


def test_the_page_tells_the_parts_of_its_archive_where_they_are():
    page = Page("sja")
    dump = re.findall(r"(?<= )[0-9a-f]{2}\b", page.sections["EXAMPLES"].examples[0])
    for (offset, _), (value, _), (field, _) in page.table("Offset", "Bytes", "Field"):
        start = int(offset, 16)
        assert dump[start : start + len(value.split())] == value.split(), field
