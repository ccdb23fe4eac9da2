"""Package files that are wrong in one place each, and the result of adding them.

A case is the file's name, its bytes, the entries that the log lists (last entry of the archive first, or None where it
comes to no listing), and the end: a status, and what the service, the database and the repository then hold.
"""

import struct
import subprocess
from typing import NamedTuple

from packages import BUNDLE, INNER, SINGLE, archive, signature, signed
from world import ROOT

HEADER = 11  # bytes of an entry in front of its name
SIGNATURE = 512

PAYLOAD = ("payload.txt", b"the client\n")
GOOD = archive(PAYLOAD)

COPIED = "copied"  # taken into the repository as it is
EXTRACTED = "extracted"  # its entries taken into the repository
INVALID_SIGNATURE, UNREADABLE, NOT_EXTRACTED, REFUSED_BY_SERVICE = 7236, 7215, 7252, 20


class Case(NamedTuple):
    sentence: str
    make: object  # gives the bytes of the file; called in the sandbox, where the key is
    end: object  # COPIED, EXTRACTED or a status
    listed: list = None  # "name|size|mode" as the log has them
    name: str = SINGLE
    files: dict = {}  # EXTRACTED or NOT_EXTRACTED: name, (content, mode) of what then lies in the repository
    items: list = []  # what the service keeps, (name, size); the file itself where there are none
    volume: str = None  # options of a small file system that the repository then is


def entry(name, data=b"", mode=0o644, size=None, name_length=None):
    """One entry; `size` and `name_length` replace the true ones."""
    name = name.encode("utf-8", "surrogateescape") if isinstance(name, str) else name
    length = len(name) if name_length is None else name_length
    return struct.pack("<BQH", length, len(data) if size is None else size, mode) + name + data


def unsigned(*entries):
    return b"JANK" + b"".join(entries)


def _case(sentence, content, end, listed=None, **how):
    """A case whose file is `content` under the trusted key's signature."""
    return Case(sentence, lambda: signed(content), end, listed, **how)


# Signatures


def _sign(content, *arguments, key=ROOT / "publisher/signing.key"):
    return subprocess.run(["openssl", *arguments, key], input=content, capture_output=True, check=True).stdout


def _digest(name, content):
    return subprocess.run(["openssl", "dgst", f"-{name}", "-binary"], input=content, capture_output=True,
                          check=True).stdout


def _without_algorithm(content):
    """The digest alone under the padding, without the name of its algorithm."""
    return _sign(_digest("sha512", content), "pkeyutl", "-sign", "-pkeyopt", "rsa_padding_mode:pkcs1", "-inkey")


def _unpadded(content):
    return _sign(_digest("sha512", content).rjust(SIGNATURE, b"\0"), "rsautl", "-sign", "-raw", "-inkey")


def _pss(content):
    return _sign(_digest("sha512", content), "pkeyutl", "-sign", "-pkeyopt", "digest:sha512", "-pkeyopt",
                 "rsa_padding_mode:pss", "-inkey")


def _by_another_key(content, bits=4096):
    key = ROOT / f"another-{bits}.key"
    if not key.exists():
        subprocess.run(["openssl", "genrsa", "-out", key, str(bits)], check=True, capture_output=True)
    return signature(content, key)


def _incremented(number):
    return (int.from_bytes(number, "big") + 1).to_bytes(len(number), "big")


_OTHER = archive(("payload.txt", b"another one\n"))

WRONG_SIGNATURES = [
    ("no signature", lambda: GOOD),
    ("no signature and a long archive", lambda: archive(("payload.txt", b"x" * 1000))),
    ("an empty file", lambda: b""),
    ("one byte", lambda: b"\0"),
    ("a file one byte shorter than a signature", lambda: signature(b"")[:-1]),
    ("a signature of zeros", lambda: bytes(SIGNATURE) + GOOD),
    ("a signature of ones", lambda: b"\xff" * SIGNATURE + GOOD),
    ("a signature of the number 1", lambda: b"\1".rjust(SIGNATURE, b"\0") + GOOD),
    ("a signature that lacks its last byte", lambda: signature(GOOD)[:-1] + GOOD),
    ("a signature that lacks its first byte", lambda: signature(GOOD)[1:] + GOOD),
    ("a byte after the signature", lambda: signature(GOOD) + b"\0" + GOOD),
    ("a byte in front of the signature", lambda: b"\0" + signature(GOOD) + GOOD),
    ("half a signature", lambda: signature(GOOD)[:256] + GOOD),
    ("the signature twice", lambda: signature(GOOD) * 2 + GOOD),
    ("the signature after the archive", lambda: GOOD + signature(GOOD)),
    ("the signature of another archive", lambda: signature(_OTHER) + GOOD),
    ("the signature of the archive without its last byte", lambda: signature(GOOD[:-1]) + GOOD),
    ("the signature of the archive without its magic", lambda: signature(GOOD[4:]) + GOOD),
    ("the signature of the archive and one byte more", lambda: signature(GOOD + b"\0") + GOOD),
    ("the signature of nothing", lambda: signature(b"") + GOOD),
    ("the signature of a file with an empty signature", lambda: signature(bytes(SIGNATURE) + GOOD) + GOOD),
    ("the signature of the archive's digest", lambda: signature(_digest("sha512", GOOD)) + GOOD),
    ("a signature over SHA-256", lambda: _sign(GOOD, "dgst", "-sha256", "-sign") + GOOD),
    ("a signature over SHA-1", lambda: _sign(GOOD, "dgst", "-sha1", "-sign") + GOOD),
    ("a signature over SHA-384", lambda: _sign(GOOD, "dgst", "-sha384", "-sign") + GOOD),
    ("a signature over SHA3-512", lambda: _sign(GOOD, "dgst", "-sha3-512", "-sign") + GOOD),
    ("a signature that does not name its digest", lambda: _without_algorithm(GOOD) + GOOD),
    ("a signature without padding", lambda: _unpadded(GOOD) + GOOD),
    ("a signature with PSS padding", lambda: _pss(GOOD) + GOOD),
    ("a signature by another key", lambda: _by_another_key(GOOD) + GOOD),
    ("a signature by a shorter key, filled up in front", lambda: _by_another_key(GOOD, 2048).rjust(512, b"\0") + GOOD),
    ("a signature by a shorter key, twice", lambda: _by_another_key(GOOD, 2048) * 2 + GOOD),
    ("a signature with its bytes in reverse", lambda: signature(GOOD)[::-1] + GOOD),
    ("a signature that is the next number", lambda: _incremented(signature(GOOD)) + GOOD),
    ("a signature in hexadecimal", lambda: signature(GOOD).hex().encode() + GOOD),
    ("line ends turned into those of DOS", lambda: signed(GOOD).replace(b"\n", b"\r\n")),
    ("the archive unsigned, in front of the signed one", lambda: GOOD + signed(GOOD)),
    ("a byte cut off", lambda: signed(GOOD)[:-1]),
    ("a byte added", lambda: signed(GOOD) + b"\0"),
    ("another archive added", lambda: signed(GOOD) + GOOD),
]


def _flipped(offset):
    def make():
        content = bytearray(signed(GOOD))
        content[offset] ^= 0x80
        return bytes(content)

    return make


_FIELDS = [("the signature's first byte", 0), ("the signature's middle", 255), ("the signature's last byte", 511),
           *((f"byte {i} of the magic", SIGNATURE + i) for i in range(4)), ("the name length", SIGNATURE + 4),
           *((f"byte {i} of the size", SIGNATURE + 5 + i) for i in range(8)),
           *((f"byte {i} of the mode", SIGNATURE + 13 + i) for i in range(2)),
           ("the name's first byte", SIGNATURE + 15), ("the name's last byte", SIGNATURE + 25),
           ("the data's first byte", SIGNATURE + 26), ("the data's last byte", SIGNATURE + len(GOOD) - 1)]

SIGNATURES = [
    *(Case(sentence, make, INVALID_SIGNATURE) for sentence, make in WRONG_SIGNATURES),
    *(Case(f"a bit flipped in {field}", _flipped(offset), INVALID_SIGNATURE) for field, offset in _FIELDS),
]


# Signed content that is not an archive, or only a part of one


def _cut(length):
    """The archive of one entry, cut to `length` bytes. An entry is there from the ninth byte of its header on, and can
    be listed when its name is whole."""
    name_ends = 4 + HEADER + len(PAYLOAD[0])
    sentence = f"an archive cut to {length} of its {len(GOOD)} bytes"
    if length < name_ends:
        return _case(sentence, GOOD[:length], UNREADABLE)
    return _case(sentence, GOOD[:length], COPIED, ["payload.txt|11|644"])


_TWO = unsigned(entry("a", b"xy"), entry("bc", b"z"))
_FIRST_ENDS = 4 + HEADER + 1 + 2


def _cut_after_the_first(length):
    """Of two entries, the second cut to `length` bytes."""
    sentence = f"a second entry cut to {length} bytes"
    content = _TWO[:_FIRST_ENDS + length]
    if length < 9:
        return _case(sentence, content, COPIED, ["a|2|644"])
    if length < HEADER + 2:
        return _case(sentence, content, UNREADABLE)
    return _case(sentence, content, COPIED, ["bc|1|644", "a|2|644"])


NOT_ARCHIVES = [
    _case("a magic in small letters", b"jank" + GOOD[4:], UNREADABLE),
    _case("a magic in reverse", b"KNAJ" + GOOD[4:], UNREADABLE),
    _case("a magic that differs in its last letter", b"JANJ" + GOOD[4:], UNREADABLE),
    _case("a magic in UTF-16", "JANK".encode("utf-16-le") + GOOD[4:], UNREADABLE),
    _case("a byte in front of the magic", b"\0" + GOOD, UNREADABLE),
    _case("512 bytes in front of the magic", b"\0" * SIGNATURE + GOOD, UNREADABLE),
    _case("a tar archive", b"payload.txt".ljust(512, b"\0") + b"the client\n".ljust(512, b"\0"), UNREADABLE),
    _case("a zip archive", b"PK\3\4" + bytes(26) + b"payload.txt", UNREADABLE),
    _case("gzip", b"\x1f\x8b\x08\0\0\0\0\0", UNREADABLE),
    _case("zeros", bytes(100000), UNREADABLE),
    *(_cut(length) for length in range(len(GOOD))),
    *(_cut_after_the_first(length) for length in range(1, HEADER + 3)),
]


# Header fields: name length, size, mode

_PAST_THE_END = [2**31 - 1, 2**31, 2**32, 2**32 + 11, 2**53, 2**62, 2**63 - 30, 2**63 - 1, 2**63, 2**63 + 1,
                 2**64 - 2**20, 2**64 - 26, 2**64 - 22, 2**64 - 1]

FIELDS = [
    *(_case(f"a last entry of {size} bytes that are not there",
            unsigned(entry("first", b"x"), entry("a", b"", size=size)), COPIED, [f"a|{size}|644", "first|1|644"]) for size in _PAST_THE_END),
    *(_case(f"a first entry of {size} bytes, which hides the second",
            unsigned(entry("a", b"", size=size), entry("second", b"x")), COPIED, [f"a|{size}|644"])
      for size in _PAST_THE_END),
    _case("a size one byte too long", unsigned(entry("a", b"x", size=2)), COPIED, ["a|2|644"]),
    _case("a size that ends inside the data, where another entry seems to begin",
          unsigned(entry("a", b"x" + entry("inner", b"yz"), size=1)), COPIED, ["inner|2|644", "a|1|644"]),
    _case("a size that ends inside the data, where too little is left for an entry",
          unsigned(entry("a", b"12345678", size=0)), COPIED, ["a|0|644"]),
    _case("a size that ends inside the data, where a name seems to be cut off",
          unsigned(entry("a", b"\xff" * 20, size=0)), UNREADABLE),
    _case("data that holds a whole archive", unsigned(entry("a", GOOD)), COPIED, [f"a|{len(GOOD)}|644"]),
    _case("an entry without data", unsigned(entry("a")), COPIED, ["a|0|644"]),
    _case("an entry without name and data", unsigned(entry("")), COPIED, ["|0|644"]),
    _case("twelve entries without name and data", unsigned(entry("") * 12), COPIED, ["|0|644"] * 12),
    _case("a name length of 0 in front of a name", unsigned(entry("abc", b"", name_length=0)), COPIED, ["|0|644"]),
    _case("a name length one too long", unsigned(entry("a", b"", name_length=2)), UNREADABLE),
    _case("a name length of 255 in front of a short name", unsigned(entry("a", b"data", name_length=255)), UNREADABLE),
    _case("a name that takes the data for itself", unsigned(entry("a", b"data", name_length=5)), COPIED,
          ["adata|4|644"]),
    *(_case(f"mode {mode:o}", unsigned(entry("a", b"x", mode=mode)), COPIED, [f"a|1|{mode:o}"])
      for mode in [0, 0o777, 0o4755, 0o2755, 0o1777, 0o7777, 0o100644, 0o120777, 0o177777]),
]


# Names of entries. Only an archive all of whose names end in ".sja" is extracted.

CONTENT = b"an inner package\n"


def _envelope(sentence, *inner, end=EXTRACTED, **how):
    """An envelope of entries (name, data[, mode]) whose names are what they seem to be."""
    listed = [f"{name}|{len(data)}|{(mode or [0o644])[0]:o}" for name, data, *mode in reversed(inner)]
    how.setdefault("listed", listed)
    if end == EXTRACTED:
        how.setdefault("items", [(name, len(data)) for name, data, *_ in reversed(inner)])
        how.setdefault("files", {name: (data, (mode or [0o644])[0] & 0o7777) for name, data, *mode in reversed(inner)})
    entries = [entry(name, data, *mode) for name, data, *mode in inner]
    return _case(sentence, unsigned(*entries), end, name=BUNDLE, **how)


def _refused(sentence, name):
    return _envelope(f"an inner name {sentence}", ("first.sja", CONTENT), (name, CONTENT), end=REFUSED_BY_SERVICE)


def _taken(sentence, name):
    return _envelope(f"an inner name {sentence}", (name, CONTENT))


def _single(sentence, name, listed=None):
    return _case(f"an inner name {sentence}", unsigned(entry(name, CONTENT)), COPIED,
                 [f"{name if listed is None else listed}|{len(CONTENT)}|644"], name=BUNDLE)


NAMES = [
    _refused("with a slash", "directory/x.sja"), _refused("that climbs", "../x.sja"),
    _refused("that climbs far", "../" * 20 + "etc/x.sja"), _refused("that climbs in the middle", "a/../../x.sja"),
    _refused("from the root", "/etc/x.sja"), _refused("from the root's root", "//x.sja"),
    _refused("of this directory", "./x.sja"), _refused("of a slash and the ending", "/.sja"),
    _refused("below the package", f"{BUNDLE}/x.sja"),
    _single("without the ending", "inner.txt"), _single("with more after the ending", "x.sja.gz"),
    _single("with a blank after the ending", "x.sja "), _single("with a slash after the ending", "x.sja/"),
    _single("of this directory alone", "."), _single("of the directory above alone", ".."),
    _single("of three letters", "sja"), _single("without the point", "xsja"),
    _single("whose ending stands after a NUL byte", "x\0.sja", listed="x"),
    _single("of a NUL byte and the ending", "\0.sja", listed=""),
    _single("that climbs, without the ending", "../../etc/passwd"),
    _taken("of the ending alone", ".sja"), _taken("of two points", "..sja"), _taken("in capitals", "X.SJA"),
    _taken("that begins with a dash", "-rf.sja"), _taken("with blanks", " a b .sja"),
    _taken("of a shell's signs", "$(reboot);`x`|&*?'\".sja"), _taken("of conversions", "%s%n%d.sja"),
    _taken("with a backslash", "..\\x.sja"), _taken("of 255 bytes", "n" * 251 + ".sja"),
    _taken("in Japanese", "日本語.sja"), _taken("of another direction", "\u202egnp.sja"),
    _taken("that is a hidden file", ".x.sja"), _taken("that is not a package's", "evil.sja"),
    _taken("that is a part file's", ".x.sja.part.sja"),
    _envelope("an inner name with a line end", ("a\nb.sja", CONTENT), listed=[f"a\\nb.sja|{len(CONTENT)}|644"]),
    _envelope("an inner name with control characters", ("\x1b[2J\x7f\r.sja", CONTENT),
              listed=[f"\\x1b[2J\\x7f\\r.sja|{len(CONTENT)}|644"]),
    _case("an inner name with more after a NUL byte", unsigned(entry("x.sja\0/../y", CONTENT)), EXTRACTED,
          [f"x.sja|{len(CONTENT)}|644"], name=BUNDLE, items=[("x.sja", len(CONTENT))],
          files={"x.sja": (CONTENT, 0o644)}),
    _envelope("an inner name that is not UTF-8", ("\udcff.sja", CONTENT), end=REFUSED_BY_SERVICE),
    _envelope("the inner name of the temporary copy itself", (f"tmp_{BUNDLE}", CONTENT), end=NOT_EXTRACTED),
    _envelope("the inner name of the temporary copy itself, after another", (f"tmp_{BUNDLE}", CONTENT),
              ("last.sja", CONTENT), end=NOT_EXTRACTED, files={"last.sja": (CONTENT, 0o644)}),
    _case("the package's own name inside", unsigned(entry(BUNDLE, CONTENT)), COPIED,
          [f"{BUNDLE}|{len(CONTENT)}|644"], name=BUNDLE, items=[(BUNDLE, len(CONTENT))]),
    _envelope("the package's own name inside, with another", (BUNDLE, CONTENT), ("x.sja", CONTENT)),
]


# Envelopes


def _many(count, kept):
    """An envelope of `count` entries of which the listing keeps those of the numbers `kept`, counted from the last."""
    inner = [(f"inner{i:04}.sja", b"%d" % i) for i in range(count)]
    listed = [inner[count - 1 - number] for number in kept]
    return _envelope(f"an envelope of {count} entries", *inner,
                     listed=[f"{name}|{len(data)}|644" for name, data in listed],
                     items=[(name, len(data)) for name, data in listed])


ENVELOPES = [
    _envelope("an inner package that is not signed", (INNER[0], GOOD)),
    _envelope("an inner package of zeros", (INNER[0], bytes(2000))),
    _envelope("an inner package that is empty", (INNER[0], b"")),
    _envelope("an inner package that is an envelope", (INNER[0], archive((INNER[1], GOOD)))),
    Case("an inner package signed by another key", lambda: signed(archive((INNER[0], _by_another_key(GOOD) + GOOD))),
         EXTRACTED, [f"{INNER[0]}|{SIGNATURE + len(GOOD)}|644"], BUNDLE, {INNER[0]: (None, 0o644)},
         [(INNER[0], SIGNATURE + len(GOOD))]),
    Case("an inner package changed after signing", lambda: signed(archive((INNER[0], signature(GOOD) + _OTHER))),
         EXTRACTED, [f"{INNER[0]}|{SIGNATURE + len(_OTHER)}|644"], BUNDLE, {INNER[0]: (None, 0o644)},
         [(INNER[0], SIGNATURE + len(_OTHER))]),
    _envelope("an inner package of an unknown type", ("dunmarel_qvtool_8.3_suse_x64.sja", CONTENT)),
    _envelope("an inner package for another system", ("dunmarel_qvclient_8.3_suse_x64.sja", CONTENT)),
    _envelope("one name in two cases", ("x.sja", b"1"), ("X.sja", b"2")),
    _envelope("one name twice", ("x.sja", b"first"), ("x.sja", b"second"), files={"x.sja": (b"first", 0o644)}),
    _envelope("one name three times, around another", ("x.sja", b"1"), ("x.sja", b"2"), ("y.sja", b"3"),
              ("x.sja", b"4"), files={"x.sja": (b"1", 0o644), "y.sja": (b"3", 0o644)}),
    *(_envelope(f"an inner package of mode {mode:o}", (INNER[0], CONTENT, mode))
      for mode in [0, 0o777, 0o4755, 0o2755, 0o1777, 0o7777, 0o104711, 0o177777]),
    _many(15, range(15)), _many(16, [0, 1]), _many(17, [0, 1, 16]), _many(31, [0, 1, *range(16, 31)]),
    _many(32, [0, 1]), _many(33, [0, 1, 32]), _many(64, [0, 1]), _many(65, [0, 1, 64]),
    _envelope("an entry of another kind that the listing loses", *((f"a{i}.sja", b"x") for i in range(7)),
              ("evil.txt", b"x"), *((f"b{i}.sja", b"x") for i in range(8)), listed=["b7.sja|1|644", "b6.sja|1|644"],
              items=[("b7.sja", 1), ("b6.sja", 1)]),
    # Sizes of inner packages
    *(_case(f"an inner package of {size} bytes", unsigned(entry("x.sja", b"", size=size)), REFUSED_BY_SERVICE,
            [f"x.sja|{size}|644"], name=BUNDLE) for size in [2**63, 2**63 + 1, 2**64 - 1]),
    _case("two inner packages of 2^63 bytes together",
          unsigned(entry("x.sja", b"y"), entry("y.sja", b"", size=2**63 - 1)), REFUSED_BY_SERVICE,
          [f"y.sja|{2**63 - 1}|644", "x.sja|1|644"], name=BUNDLE),
    *(_case(f"an inner package of {size} bytes that are not there, on a small disk",
            unsigned(entry("x.sja", b"", size=size)), NOT_EXTRACTED, [f"x.sja|{size}|644"], name=BUNDLE,
            volume="size=3m")
      for size in [2**32, 2**40, 2**62, 2**63 - 1]),
    _case("an inner package one byte of which is not there", unsigned(entry("x.sja", b"", size=1)), EXTRACTED,
          ["x.sja|1|644"], name=BUNDLE, items=[("x.sja", 1)], files={"x.sja": (None, 0o644)}),
    _case("two inner packages, the last cut off", unsigned(entry("x.sja", b"1"), entry("y.sja", b"", size=5000)),
          EXTRACTED, ["y.sja|5000|644", "x.sja|1|644"], name=BUNDLE, items=[("y.sja", 5000), ("x.sja", 1)],
          files={"y.sja": (None, 0o644), "x.sja": (b"1", 0o644)}),
]


# Names of package files: a sentence, the name, and the status of those that are refused

FILE_NAMES = [
    ("of one part", "package.sja", 7216), ("of two parts", "qvclient_8.3.sja", 7216),
    ("of three parts", "qvclient_8.3_redhat.sja", 7216), ("of the prefix alone", "dunmarel_", 7216),
    ("of underscores", "____.sja", 7216), ("whose type is in capitals", "QVCLIENT_8.3_redhat_x64.sja", 7265),
    ("of an unknown type", "qvtool_8.3_redhat_x64.sja", 7265), ("with the prefix twice",
                                                               "dunmarel_dunmarel_qvclient_8.3_redhat_x64.sja", 7265),
    ("with a blank in front", " qvclient_8.3_redhat_x64.sja", 7265),
    ("that is a hidden file's", ".dunmarel_qvclient_8.3_redhat_x64.sja", 7265),
    ("of the temporary copy", f"tmp_{SINGLE}", 7265),
    ("whose type is a part of one", "qvclien_8.3_redhat_x64.sja", 7265),
    ("of a version too low", "qvclient_7.6.9.9_redhat_x64.sja", 7264),
    ("of a version without a number", "qvclient_beta_redhat_x64.sja", 7264),
    ("of version 0", "qvclient_0_redhat_x64.sja", 7264), ("of version 100", "qvclient_100_redhat_x64.sja", 7264),
    ("with a version for a system", "qvclient_9.1_x_redhat_x64_extra.sja", 7264),
    ("of an unknown system", "qvclient_8.3_centos_x64.sja", 7266),
    ("of a system in capitals", "qvclient_8.3_REDHAT_X64.sja", 7266),
    ("of a system with a blank", "qvclient_8.3_redhat_x64 .sja", 7266),
    ("of a system cut short by a point", "qvclient_8.3_red.hat_x64.sja", 7266),
    ("of an EEB version with a letter", "qveeb_3.1a_8.3_redhat_x64.sja", 7267),
    ("of an EEB version of 13 characters", "qveeb_1234567890123_8.3_redhat_x64.sja", 7267),
    ("of an EEB version below 0", "qveeb_-1_8.3_redhat_x64.sja", 7267),
    ("with a line end in it", "qvclient_8.3_redhat\n_x64.sja", 7266),
    ("of 255 characters", "qvclient_8.3_redhat_" + "x" * 231 + ".sja", 7266),
]
