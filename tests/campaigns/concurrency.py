#!/usr/bin/env python3
"""Lets several processes open, change and commit the same package file again and again, and others read it meanwhile.

Writers are programs on the library, with and without a backup, and `opctext set`. Readers use the package, the light
reader, and no code of the project at all. Each commit gives all stamped parts a stamp of its own (which generation of
the file, by which writer), from which their sizes and every byte follow. So every read can tell whether it saw the
parts of one commit, all of them whole. The rounds differ in who writes, and in whether the temporary area lies on the
file system of the package or on another one.

usage: concurrency.py [--quick]
"""

import base64
import os
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ProcessPoolExecutor
from pathlib import Path

BUILD = Path(__file__).resolve().parents[2] / "build" / "dev"
PROGRAM = BUILD / "tests" / "campaigns" / "campaign_concurrency"
OPCTEXT = BUILD / "opctext" / "opctext"

STAMPED_PARTS = ["/[Content_Types].xml", "/_rels/.rels", "/metadata/info.xml", "/a.txt", "/b.bin", "/c.txt",
                 "/d/e.bin", "/f.txt"]
SINGLE_PART = "/single.txt"
END_LINE = b"\n__ZKOPC_PACKAGE_END__\n"
GIVES_WAY = "somebody else changed the file in the meantime"

# Who changes the file in a round.
TWO_WITH_BACKUP = ["change-with-backup", "change-with-backup"]
PAIRS = [TWO_WITH_BACKUP, ["change", "change-with-backup"], ["change-with-backup", "set"], ["set", "set-with-backup"]]
FOUR = ["change", "change-with-backup", "change-with-backup", "set-with-backup"]
QUICK = ["change-with-backup", "change-with-backup", "set"]


class Violation(Exception):
    """Something that must not happen; the text says what and where."""


def content_of(name: str, generation: int, writer: str) -> bytes:
    """The whole content of a part, as the program's contentOf makes it."""
    words = f"{generation} {writer}"
    count = (generation * 37 + len(name) * 101 + len(writer)) % 997
    line = (b"\0\xff" if name.endswith(".bin") else b"") + f"{name} {words}\n".encode()
    return f"{words}\n".encode() + line * count


def parse(text: bytes) -> dict[str, bytes]:
    """The parts of a package text without CR."""
    if not text.endswith(END_LINE):
        raise Violation(f"no end line; the text ends with {text[-80:]!r}")
    parts = {}
    for block in text[:-len(END_LINE)].split(b"\n__ZKOPC_PART_BEGIN__ ")[1:]:
        begin, _, content = block.partition(b"\n")
        name, _, flag = begin.decode().partition(" ")
        parts[name] = b"".join(map(base64.b64decode, content.split(b"\n"))) if flag == "BASE64" else content
    return parts


def require_whole(text: bytes) -> None:
    """Raises unless the text is that of a package whose parts are of one commit."""
    parts = parse(text)
    if sorted(parts) != sorted([*STAMPED_PARTS, SINGLE_PART]):
        raise Violation(f"the parts are {sorted(parts)}")
    for name, content in parts.items():
        stamp = parts[name if name == SINGLE_PART else STAMPED_PARTS[0]].split(b"\n")[0].decode()
        generation, writer = stamp.split(" ")
        if content != content_of(name, int(generation), writer):
            raise Violation(f"part {name} is not what was written under the stamp {stamp}: {len(content)} bytes that "
                            f"begin with {content[:60]!r}")


def read_slowly(path: Path) -> bytes:
    """Reads a file in pieces, so that whoever wrote into it would be noticed."""
    with open(path, "rb", buffering=0) as file:
        text = file.read(1000)
        while piece := file.read(30000):
            text += piece
            time.sleep(0.0005)
    return text


def read_plainly(path: Path, seconds: int) -> int:
    """Reads a file, where there is one, again and again; returns how often."""
    end = time.monotonic() + seconds
    reads = 0
    while time.monotonic() < end:
        if not path.exists():
            time.sleep(0.001)  # the first backup is still to come
            continue
        require_whole(read_slowly(path))
        reads += 1
    return reads


def run_program(role: str, path: Path, seconds: int, writer: str) -> int:
    """Runs a process of the campaign on the library; returns how often it did its work."""
    command = [PROGRAM, role, path, str(seconds), writer]
    ended = subprocess.run(command, capture_output=True, text=True)
    if ended.returncode != 0:
        raise Violation(f"{role} of {path.name} ended with {ended.returncode}: {ended.stderr.strip()}")
    return int(ended.stdout)


def set_again_and_again(path: Path, seconds: int, writer: str, options: list[str]) -> tuple[int, int]:
    """Runs `opctext set`; returns how often it committed and how often it gave way to another writer."""
    end = time.monotonic() + seconds
    commits = gave_way = 0
    while time.monotonic() < end:
        content = content_of(SINGLE_PART, commits + gave_way, writer)
        ended = subprocess.run([OPCTEXT, "set", path, SINGLE_PART, *options], input=content, capture_output=True)
        if ended.returncode == 0 and not ended.stderr:
            commits += 1
        elif ended.returncode == 4 and GIVES_WAY in ended.stderr.decode():
            gave_way += 1
        else:
            raise Violation(f"opctext set ended with {ended.returncode}: {ended.stderr.decode().strip()}")
    return commits, gave_way


def start_writer(pool: ProcessPoolExecutor, kind: str, path: Path, seconds: int, writer: str):
    """Starts a writer of one of the kinds in PAIRS."""
    if kind.startswith("set"):
        options = ["--backup"] if kind == "set-with-backup" else []
        return pool.submit(set_again_and_again, path, seconds, writer, options)
    return pool.submit(run_program, kind, path, seconds, writer)


def require_nothing_left(folder: Path, temporary: Path, backup: bool) -> None:
    """Raises where something lies beside the package and its backup, or in the temporary area."""
    expected = {"p.txt", "p.txt.bak"} if backup else {"p.txt"}
    if left := {entry.name for entry in folder.iterdir()} - expected:
        raise Violation(f"left beside the package: {sorted(left)}")
    if left := list(temporary.iterdir()):
        raise Violation(f"left in the temporary area: {[entry.name for entry in left]}")
    mode = (folder / "p.txt").stat().st_mode & 0o777
    if mode != 0o640:
        raise Violation(f"the package has the permissions {mode:o} now")


def run_round(writers: list[str], folder: Path, temporary: Path, seconds: int) -> None:
    """Lets these writers and all readers run at once, and prints what each did."""
    path = folder / "p.txt"
    backup_path = folder / "p.txt.bak"
    backup_path.unlink(missing_ok=True)
    os.environ["TMPDIR"] = str(temporary)
    subprocess.run([PROGRAM, "create", path], check=True)
    path.chmod(0o640)
    backup = any(kind.endswith("backup") for kind in writers)

    with ProcessPoolExecutor(len(writers) + 4) as pool:
        running = {f"writer {i} ({kind})": start_writer(pool, kind, path, seconds, f"w{'x' * i}")
                   for i, kind in enumerate(writers)}
        running["read by the package"] = pool.submit(run_program, "read", path, seconds, "")
        running["read by the light reader"] = pool.submit(run_program, "read-lightly", path, seconds, "")
        running["read plainly"] = pool.submit(read_plainly, path, seconds)
        if backup:
            running["backup read plainly"] = pool.submit(read_plainly, backup_path, seconds)
        done = {name: future.result() for name, future in running.items()}

    require_nothing_left(folder, temporary, backup)
    require_whole(path.read_bytes())
    for name, count in done.items():
        commits, gave_way = count if isinstance(count, tuple) else (count, None)
        print(f"  {name}: {commits} times" + ("" if gave_way is None else f", gave way {gave_way} times"))
        if commits + (gave_way or 0) == 0:
            raise Violation(f"{name}: never got to work")


def rounds(folder: Path, quick: bool) -> list[tuple[str, list[str]]]:
    """The rounds: the folder to make the temporary area in, and who writes."""
    result = [(str(folder), writers) for writers in ([QUICK] if quick else [*PAIRS, FOUR])]
    if Path("/dev/shm").is_dir() and os.stat("/dev/shm").st_dev != folder.stat().st_dev:
        result += [("/dev/shm", writers) for writers in ([QUICK] if quick else [TWO_WITH_BACKUP, FOUR])]
    else:
        print("not tried: a temporary area on another file system, for want of one")
    return result


def main() -> int:
    quick = "--quick" in sys.argv[1:]
    seconds = 3 if quick else 60
    with tempfile.TemporaryDirectory(prefix="concurrency-") as base:
        for area, writers in rounds(Path(base), quick):
            place = "the same file system" if area == base else "across file systems"
            print(f"{place}, {seconds} s: {', '.join(writers)}", flush=True)
            with tempfile.TemporaryDirectory(dir=base) as folder, tempfile.TemporaryDirectory(dir=area) as temporary:
                try:
                    run_round(writers, Path(folder), Path(temporary), seconds)
                except Violation as violation:
                    print(f"VIOLATION: {violation}\nto repeat: {' '.join(sys.argv)}", file=sys.stderr)
                    return 1
    print("every read saw a whole package")
    return 0


if __name__ == "__main__":
    sys.exit(main())
