"""The write path's measurements; bench/write runs them in a sandbox, on a real disk. Arguments: sizes in MiB."""

import os
import shutil
import subprocess
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests/e2e"))

import measure
import world

QVREPO = world.PROGRAMS / "qvrepo"
SJAPACK = world.PROGRAMS / "sjapack"
VERIFY = world.PROGRAMS / "bench/verify_package"
SIGNING_KEY = world.ROOT / "publisher/signing.key"
PUBLIC_KEY = world.ROOT / "var/global/dunmarel/pubkey.pem"
WORK = world.ROOT / "work"
ROUNDS = 5
ROUNDS_OF_LARGE = 2  # of sizes above 2 GiB, which show the growth alone
INNER_FILES = 8


def run(*command, **how):
    return subprocess.run([str(argument) for argument in command], check=True, **how)


def make_payload(path, mebibytes):
    """A file of bytes that do not compress; made from one random MiB, each counted so that no two are the same."""
    block = os.urandom(1 << 20)
    with open(path, "wb") as file:
        for number in range(mebibytes):
            file.write(number.to_bytes(8, "little") + block[8:])


def make_package(name, *files):
    package = WORK / name
    run(SJAPACK, "create", package, *files, "--key", SIGNING_KEY, stderr=subprocess.DEVNULL,
        stdout=subprocess.DEVNULL)
    return package


def warm(path):
    """Brings a file into the page cache, and flushes what earlier runs wrote, so that no run pays for another."""
    os.sync()
    with open(path, "rb") as file:
        while file.read(1 << 24):
            pass


class World:
    """The service and the repository, set back before each run."""

    def __init__(self):
        run(world.SOURCES / "scripts/make-tree", world.ROOT, world.HOST)
        (world.ROOT / "quorvelle/logs/qvrepo").rmdir()
        WORK.mkdir()
        self.master = world.Master()
        self.master.start()

    def reset(self, package):
        """Empties the repository and the service's list, and warms the package."""
        for entry in world.REPOSITORY.iterdir():
            entry.unlink()
        for registered in self.master.get().json["data"]:
            self.master.delete(registered["id"])
        scratch = WORK / "scratch"
        shutil.rmtree(scratch, ignore_errors=True)
        scratch.mkdir()
        warm(package)


def signature_parts(package):
    """What openssl wants of a package: its signature and what it signs, as files of their own."""
    signature, signed = WORK / "signature", WORK / "signed"
    with open(package, "rb") as file:
        signature.write_bytes(file.read(512))
        with open(signed, "wb") as rest:
            shutil.copyfileobj(file, rest, 1 << 24)
    return signature, signed


def rounds_for(mebibytes):
    return ROUNDS if mebibytes <= 2048 else ROUNDS_OF_LARGE


def measure_verification(package, mebibytes):
    signature, signed = signature_parts(package)
    measure.compare(f"(a) verification, {mebibytes} MiB", [
        measure.Subject("verifySja", [VERIFY, package], lambda: warm(package)),
        measure.Subject("openssl dgst -verify", ["openssl", "dgst", "-sha512", "-verify", PUBLIC_KEY, "-signature",
                                                 signature, signed], lambda: warm(signed))], rounds_for(mebibytes), memory=True)
    signed.unlink()


def measure_single(place, package, mebibytes):
    digest = f"openssl dgst -sha512 {package}"
    subjects = [
        measure.Subject("qvrepo -add (single)", [QVREPO, "-add", package], lambda: place.reset(package)),
        measure.Subject("3 x digest, cp, sync", f"{digest} && {digest} && {digest} && cp {package} {WORK}/scratch/copy && "
                        f"sync {WORK}/scratch/copy", lambda: place.reset(package))]
    if mebibytes <= 2048:
        subjects += peers(place, package)
    measure.compare(f"(b) add of a single package, {mebibytes} MiB", subjects, rounds_for(mebibytes), memory=True)


def measure_bundle(place, files, package, mebibytes):
    digest = f"openssl dgst -sha512 {package}"
    archive = WORK / "files.tar"
    run("bsdtar", "-cf", archive, "-C", WORK, *(file.name for file in files))
    measure.compare(f"(c) add of a bundle of {INNER_FILES} packages, {mebibytes} MiB", [
        measure.Subject("qvrepo -add (bundle)", [QVREPO, "-add", package], lambda: place.reset(package)),
        measure.Subject("2 x digest, cp, bsdtar -x",
                        f"{digest} && {digest} && cp {archive} {WORK}/scratch/copy && "
                        f"bsdtar -xf {WORK}/scratch/copy -C {WORK}/scratch", lambda: place.reset(package))],
        rounds_for(mebibytes), memory=True)
    archive.unlink()


def peers(place, package):
    """Repository tools of a distribution, adding a .deb of the package's size; those that are not installed are left
    out."""
    found = [name for name in ("reprepro", "aptly") if shutil.which(name)]
    if not found:
        return []
    deb = make_deb(package)
    made = {"reprepro": reprepro, "aptly": aptly}
    return [made[name](place, deb) for name in found]


def make_deb(package):
    tree = WORK / "deb"
    shutil.rmtree(tree, ignore_errors=True)
    (tree / "DEBIAN").mkdir(parents=True)
    (tree / "DEBIAN/control").write_text(
        "Package: payload\nVersion: 1\nArchitecture: all\nMaintainer: A <a@example.com>\nDescription: bytes\n"
        "Section: misc\nPriority: optional\n")
    os.link(package, tree / "payload")
    deb = WORK / "payload_1_all.deb"
    run("dpkg-deb", "-Znone", "--build", tree, deb, stdout=subprocess.DEVNULL)
    shutil.rmtree(tree)
    return deb


def reprepro(place, deb):
    base = WORK / "reprepro"

    def prepare():
        place.reset(deb)
        shutil.rmtree(base, ignore_errors=True)
        (base / "conf").mkdir(parents=True)
        (base / "conf/distributions").write_text("Codename: stable\nComponents: main\nArchitectures: amd64\n")

    return measure.Subject("reprepro includedeb", ["reprepro", "-b", base, "includedeb", "stable", deb], prepare)


def aptly(place, deb):
    base, configuration = WORK / "aptly", WORK / "aptly.conf"
    configuration.write_text('{"rootDir": "%s"}' % base)

    def prepare():
        place.reset(deb)
        shutil.rmtree(base, ignore_errors=True)
        run("aptly", f"-config={configuration}", "repo", "create", "stable", stdout=subprocess.DEVNULL)

    return measure.Subject("aptly repo add", ["aptly", f"-config={configuration}", "repo", "add", "stable", deb], prepare)


def measure_size(place, mebibytes):
    payload = WORK / "payload"
    make_payload(payload, mebibytes)
    single = make_package("dunmarel_qvclient_8.3_redhat_x64.sja", payload)
    payload.unlink()
    measure_verification(single, mebibytes)
    measure_single(place, single, mebibytes)
    single.unlink()
    files = [WORK / f"dunmarel_qvclient_8.{number}_suse_x64.sja" for number in range(INNER_FILES)]
    for file in files:
        make_payload(file, mebibytes // INNER_FILES)
    bundle = make_package("dunmarel_qv_8.3_redhat_x64.sja", *files)
    measure_bundle(place, files, bundle, mebibytes)
    place.reset(bundle)
    for file in WORK.iterdir():
        shutil.rmtree(file) if file.is_dir() else file.unlink()


def main():
    place = World()
    try:
        for size in sys.argv[1:] or ["256", "1024", "4096"]:
            measure_size(place, int(size))
    finally:
        place.master.finish()


main()
