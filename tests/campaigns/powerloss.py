#!/usr/bin/env python3
"""Power lost during a commit.

The file operations of every scenario that replaces a file are recorded, and replayed on a model of a disk (disk.py).
After each operation the power fails: what was not synced may be there, in part, in another order, or not at all. In all
these states the file must be whole, old or new, never missing where there was one, and so must its backup, which is there
wherever the new file is. Once success was reported all of it must be new.

    powerloss.py [--quick] [--seed N] [--only PATTERN] [--keep-going]
"""

import os
import random
import re
import stat
from collections import Counter
from typing import NamedTuple

from disk import Content, Disk, File
from scenarios import MARK, SUCCEEDED, Options, Scenario, Tree, Violation, Workplace, campaign, name_of_call, workplace

# All that opens, moves in, changes, names and syncs files.
RECORDED = ("openat,close,read,lseek,fcntl,write,writev,pwrite64,copy_file_range,sendfile,ftruncate,truncate,fchmod,"
            "chmod,fchmodat,link,linkat,symlink,symlinkat,rename,renameat,renameat2,unlink,unlinkat,fallocate,fsync,"
            "fdatasync,sync_file_range,mmap,dup,dup2,dup3,ioctl")
CALL = re.compile(r"\d+ +(\w+)\((.*)\) += (-?\w+)")
TEXT = re.compile(r'"((?:\\x[0-9a-f]{2})*)"')


class OpenFile:
    """What a descriptor stands for: a file and a position in it, or a folder."""

    def __init__(self, path: str, file: File | None):
        self.path = path
        self.file = file  # none: a folder, or a file that is not on the disk of the model
        self.position = 0


class Replay:
    """Does on a disk what a trace says."""

    def __init__(self, disk: Disk, folder: str):
        self._disk = disk
        self._working_folder = folder
        self._open: dict[int, OpenFile] = {}
        self._umask = os.umask(0)
        os.umask(self._umask)

    def do(self, line: str) -> bool:
        """Does one call; returns whether it changed the disk or what is certain about it."""
        match = CALL.match(line)
        if not match:
            return False
        name, text, result = match.group(1), match.group(2), match.group(3)
        if result == "?" or result.startswith("-"):
            return False
        arguments = re.sub(r"\[.*\]", lambda found: found.group().replace(", ", ","), text).split(", ")
        method = getattr(self, "_" + name, None)
        if method is None:
            raise Violation(f"the model knows no {name}")
        return bool(method(arguments, int(result, 0)))

    def _path(self, text: str, descriptor: str = "AT_FDCWD") -> str:
        path = bytes_of(text).decode()
        folder = self._working_folder if descriptor == "AT_FDCWD" else self._open[int(descriptor)].path
        return os.path.normpath(os.path.join(folder, path))

    def _write_at_position(self, descriptor: str, data: bytes) -> bool:
        target = self._open.get(int(descriptor))
        if target is None or target.file is None:
            return False
        self._disk.write(target.file, target.position, data)
        target.position += len(data)
        return True

    def _openat(self, arguments: list[str], descriptor: int) -> bool:
        path, flags = self._path(arguments[1], arguments[0]), arguments[2].split("|")
        file = self._disk.file(path)
        changes = False
        if file is None and "O_CREAT" in flags:
            file = self._disk.create(path, stat.S_IFREG | int(arguments[3], 8) & ~self._umask)
            changes = True
        elif file is not None and "O_TRUNC" in flags and file.current[1]:
            file.truncate(0)
            changes = True
        self._open[descriptor] = OpenFile(path, file)
        if "O_APPEND" in flags:
            raise Violation("the model can't append")
        return changes

    def _close(self, arguments: list[str], _: int) -> None:
        self._open.pop(int(arguments[0]), None)

    def _fcntl(self, arguments: list[str], result: int) -> None:
        if "F_DUPFD" in arguments[1]:
            self._open[result] = self._open[int(arguments[0])]

    def _read(self, arguments: list[str], count: int) -> None:
        if int(arguments[0]) in self._open:
            self._open[int(arguments[0])].position += count

    def _lseek(self, arguments: list[str], position: int) -> None:
        if int(arguments[0]) in self._open:
            self._open[int(arguments[0])].position = position

    def _write(self, arguments: list[str], count: int) -> bool:
        return self._write_at_position(arguments[0], bytes_of(arguments[1])[:count])

    def _writev(self, arguments: list[str], count: int) -> bool:
        return self._write_at_position(arguments[0], bytes_of(arguments[1])[:count])

    def _copy_file_range(self, arguments: list[str], count: int) -> bool:
        source = self._open[int(arguments[0])]
        assert source.file is not None and arguments[1] == arguments[3] == "NULL"
        data = source.file.current[1][source.position:source.position + count]
        source.position += count
        return self._write_at_position(arguments[2], data)

    def _ftruncate(self, arguments: list[str], _: int) -> bool:
        file = self._open[int(arguments[0])].file
        if file is not None:
            file.truncate(int(arguments[1]))
        return file is not None

    def _fchmod(self, arguments: list[str], _: int) -> bool:
        file = self._open[int(arguments[0])].file
        if file is not None:
            file.set_mode(int(arguments[1], 8))
        return file is not None

    def _chmod(self, arguments: list[str], _: int) -> bool:
        file = self._disk.file(self._path(arguments[0]))
        if file is not None:
            file.set_mode(int(arguments[1], 8))
        return file is not None

    def _link(self, arguments: list[str], _: int) -> bool:
        self._disk.link(self._path(arguments[0]), self._path(arguments[1]))
        return True

    def _rename(self, arguments: list[str], _: int) -> bool:
        self._disk.rename(self._path(arguments[0]), self._path(arguments[1]))
        return True

    def _unlink(self, arguments: list[str], _: int) -> bool:
        self._disk.unlink(self._path(arguments[0]))
        return True

    def _unlinkat(self, arguments: list[str], _: int) -> bool:
        path = self._path(arguments[1], arguments[0])
        if self._disk.file(path) is not None:
            self._disk.unlink(path)
        return True

    def _fsync(self, arguments: list[str], _: int) -> bool:
        synced = self._open[int(arguments[0])]
        if synced.file is not None:
            synced.file.sync()
        else:
            self._disk.sync_folder(synced.path)
        return True

    def _mmap(self, arguments: list[str], _: int) -> None:
        if "PROT_WRITE" in arguments[2] and "MAP_SHARED" in arguments[3]:
            raise Violation("the model can't write through a mapping")


def bytes_of(text: str) -> bytes:
    """All the strings in a text of strace, which are in hexadecimal digits."""
    return b"".join(bytes.fromhex(found.replace("\\x", "")) for found in TEXT.findall(text))


def readable(line: str) -> str:
    return TEXT.sub(lambda found: repr(bytes_of(found.group())[:200].decode(errors="replace")), line)


class Expectation(NamedTuple):
    """What a replaced file and its backup are before and after; absolute paths."""

    target: str
    before: dict[str, Content]
    after: dict[str, Content]

    def judge(self, disk: Disk, is_finished: bool) -> int:
        """Judges all that may be on the disk; returns how many states that is."""
        states = 0
        may_be_new = False
        old_companions = []
        for path in sorted(self.before.keys() | self.after.keys()):
            old, new = self.before.get(path), self.after.get(path)
            for content in disk.possible(path):
                states += 1
                if content != new and (content != old or is_finished):
                    raise Violation(f"{path} may be {'missing' if content is None else 'torn or old'}")
                if content == new != old and path == self.target:
                    may_be_new = True
                if content == old != new and path != self.target:
                    old_companions.append(path)
        if may_be_new and old_companions:
            raise Violation(f"{self.target} may be new although {old_companions} may not be there yet")
        return states


def replay(place: Workplace, lines: list[str], choice: random.Random) -> Counter[str]:
    """Lets the power fail after each operation of a trace."""
    expectation = Expectation(str(place.folder / place.scenario.target), files_of(place, place.before),
                              files_of(place, place.after))
    disk = Disk(expectation.before, choice)
    replayed = Replay(disk, str(place.folder))
    counts = Counter({"scenarios": 1})
    for number, line in enumerate([*lines, "success was reported"]):
        try:
            is_finished = number == len(lines)
            if replayed.do(line) or is_finished:
                counts["moments"] += 1
                counts["states of the disk"] += expectation.judge(disk, is_finished)
        except Violation as violation:
            raise Violation(f"{place.scenario.name}, power lost after call {number} of the run: {violation}\n"
                            f"  the call was: {readable(line)}") from None
    for path, content in expectation.after.items():
        file = disk.file(path)
        if file is None or file.current != content:
            raise Violation(f"{place.scenario.name}: the model does not know what {path} is in the end")
    return counts


def files_of(place: Workplace, tree: Tree) -> dict[str, Content]:
    return {str(place.folder / path): content for path, content in tree.items() if stat.S_ISREG(content[0])}


def try_scenario(scenario: Scenario, options: Options) -> Counter[str]:
    if not scenario.target:
        return Counter()
    with workplace(scenario) as place:
        if not place.writes:
            return Counter()
        place.renew()
        end = place.run(["-e", f"trace={MARK},{RECORDED}", "-xx", "-s", "100000000"])
        assert end.status == SUCCEEDED
        names = [name_of_call(line) for line in end.calls]
        first = names.index(MARK)
        counts: Counter[str] = Counter()
        with options.noting(counts):
            counts += replay(place, end.calls[first + 1:names.index(MARK, first + 1)],
                             random.Random(f"{options.seed} {scenario.name}"))
        return counts


# --- The campaign must be able to fail

OLD, NEW = (stat.S_IFREG | 0o644, b"old"), (stat.S_IFREG | 0o644, b"new content")


def check_the_model() -> None:
    """Replays commits that are wrong, each of which must be noticed, and one that is right."""
    def run(steps: str) -> bool:
        disk = Disk({"/f/target": OLD}, random.Random(1))
        expectation = Expectation("/f/target", {"/f/target": OLD}, {"/f/target": NEW})
        fresh = File(OLD)
        try:
            for step in steps.split():
                if step == "create":
                    fresh = disk.create("/f/fresh", NEW[0])
                elif step == "empty":
                    fresh = disk.file("/f/target") or fresh
                    fresh.truncate(0)
                elif step == "write":
                    disk.write(fresh, 0, NEW[1])
                elif step == "sync":
                    fresh.sync()
                elif step == "rename":
                    disk.rename("/f/fresh", "/f/target")
                elif step == "remove":
                    disk.unlink("/f/target")
                elif step == "sync-folder":
                    disk.sync_folder("/f")
                expectation.judge(disk, False)
            expectation.judge(disk, True)
        except Violation:
            return False
        return True

    assert run("create write sync rename sync-folder")
    for wrong in ("create write rename sync sync-folder", "create write rename sync-folder", "create write sync rename",
                  "create sync write rename sync-folder", "create write sync remove rename sync-folder",
                  "empty write sync", "create write sync-folder rename sync-folder"):
        assert not run(wrong), wrong


if __name__ == "__main__":
    check_the_model()
    campaign(__doc__, try_scenario, 1)
