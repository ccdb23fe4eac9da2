"""A manual page as its reader has it: sections with their text, what is set in bold, tables, terms and examples."""

import html.parser
import subprocess

from program_options import BUILD

PAGES = {"qvrepo": "8", "qvcheck": "8", "qvmaster": "8", "sjapack": "1", "sja": "5"}


def page_file(name):
    return BUILD / f"man/{name}.{PAGES[name]}"


class Section:
    def __init__(self, heading):
        self.heading = heading
        self.text = ""  # without tables and examples
        self.bold = []
        self.tables = []  # lists of rows, which are lists of cells; a cell is (text, what of it is bold)
        self.terms = []  # paragraphs that begin with an option
        self.examples = []

    def all_bold(self):
        return self.bold + [bold for table in self.tables for row in table for _, bold in row]

    def all_text(self):
        cells = [text for table in self.tables for row in table for text, _ in row]
        return "\n".join([self.text, *cells, *self.examples])


class Page(html.parser.HTMLParser):
    """The page `name`; `sections` holds its sections and subsections by heading."""

    def __init__(self, name):
        super().__init__()
        self.sections = {}
        self._section = Section("")
        self._inside = []
        self._paragraph = self._cell = self._cell_bold = ""
        render = ["mandoc", "-T", "html", "-O", "fragment", page_file(name)]
        self.feed(subprocess.run(render, capture_output=True, text=True, check=True).stdout)

    def handle_starttag(self, tag, attributes):
        self._inside.append(tag)
        if tag in ("h1", "h2"):
            self._section = Section("")
        elif tag == "p":
            self._paragraph = ""
        elif tag == "table":
            self._section.tables.append([])
        elif tag == "tr":
            self._section.tables[-1].append([])
        elif tag == "td":
            self._cell = self._cell_bold = ""
        elif tag == "pre":
            self._section.examples.append("")
        elif tag == "b" and "td" in self._inside:
            self._cell_bold += " "
        elif tag == "b":
            self._section.bold.append("")

    def handle_startendtag(self, tag, attributes):
        """Breaks of lines have nothing in them."""

    def handle_endtag(self, tag):
        self._inside.remove(tag)
        if tag in ("h1", "h2"):
            self.sections[self._section.heading] = self._section
        elif tag == "p" and self._paragraph.startswith("-"):
            self._section.terms.append(" ".join(self._paragraph.split()))
        elif tag == "td":
            self._section.tables[-1][-1].append((" ".join(self._cell.split()), " ".join(self._cell_bold.split())))

    def handle_data(self, data):
        section = self._section
        if {"h1", "h2"} & set(self._inside):
            section.heading += data
        elif "td" in self._inside:
            self._cell += data
            self._cell_bold += data if "b" in self._inside else ""
        elif "pre" in self._inside:
            section.examples[-1] += data
        else:
            section.text += data
            self._paragraph += data
            if "b" in self._inside:
                section.bold[-1] += data

    def all_bold(self):
        return [text for section in self.sections.values() for text in section.all_bold()]

    def all_text(self):
        return "\n".join(section.all_text() for section in self.sections.values())

    def commands(self, program):
        """The command lines of `program` in the examples, without the program and its prompt."""
        lines = "\n".join(example for section in self.sections.values() for example in section.examples)
        lines = lines.replace("\\\n", " ")
        return [line.split(f"{program} ", 1)[1] for line in lines.splitlines() if f"{program} " in line]

    def table(self, *headings):
        """The rows below the headings, of the one table that has these."""
        found = [
            rows[1:]
            for section in self.sections.values()
            for rows in section.tables
            if rows and tuple(text for text, _ in rows[0]) == headings
        ]
        assert len(found) == 1, f"{len(found)} tables have the headings {headings}"
        return found[0]
