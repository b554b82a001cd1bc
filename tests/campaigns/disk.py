"""A model of a disk that may lose power: what it may hold afterwards, after any sequence of file operations.

It promises no more than POSIX does. What is written to a file is on the disk for certain once that file was synced;
until then each write may be there, in part, or not, in any order. A new name, a rename or a removal is on the disk for
certain once its folder was synced; until then it may be there or not, in any order too, but a rename is never half done.
Syncing a file says nothing about its name.
"""

import itertools
import random
import stat
from collections.abc import Callable, Iterator
from typing import NamedTuple

MOST_COMBINATIONS = 2000  # of unsynced writes; beyond that, so many are drawn at random
SECTOR = 512

Content = tuple[int, bytes]  # type and permission bits, data: as in a scenarios.Tree
Effect = Callable[[Content], Content]


def nothing(content: Content) -> Content:
    return content


def writing(offset: int, data: bytes) -> Effect:
    def apply(content: Content) -> Content:
        mode, old = content
        return mode, old[:offset].ljust(offset, b"\0") + data + old[offset + len(data):]
    return apply


class File:
    """A file, whatever its names: what is on the disk for certain, and what may be."""

    def __init__(self, content: Content):
        self.synced = content
        self.current = content
        self._unsynced: list[list[Effect]] = []  # of each operation all the effects that it may have, the whole one last

    def write(self, offset: int, data: bytes, choice: random.Random) -> None:
        cuts = {choice.randrange(len(data)), choice.randrange(0, len(data), SECTOR)} - {0} if data else set()
        effects = [nothing, writing(offset, bytes(len(data)))]  # the length may arrive without the data
        effects += [writing(offset, data[:cut]) for cut in cuts] + [writing(offset + cut, data[cut:]) for cut in cuts]
        self._do([*effects, writing(offset, data)])

    def truncate(self, size: int) -> None:
        self._do([nothing, lambda content: (content[0], content[1][:size].ljust(size, b"\0"))])

    def set_mode(self, permissions: int) -> None:
        self._do([nothing, lambda content: (stat.S_IFMT(content[0]) | permissions, content[1])])

    def sync(self) -> None:
        self.synced = self.current
        self._unsynced.clear()

    def possible(self, choice: random.Random) -> Iterator[Content]:
        """What the file may hold after a power loss; much of it, where there is too much for all."""
        count = 1
        for effects in self._unsynced:
            count *= len(effects)
        combinations: Iterator[tuple[Effect, ...]] = itertools.product(*self._unsynced)
        if count > MOST_COMBINATIONS:
            combinations = (tuple(map(choice.choice, self._unsynced)) for _ in range(MOST_COMBINATIONS))
        for combination in combinations:
            content = self.synced
            for effect in combination:
                content = effect(content)
            yield content

    def _do(self, effects: list[Effect]) -> None:
        self._unsynced.append(effects)
        self.current = effects[-1](self.current)


class NameChange(NamedTuple):
    """An unsynced operation on names, which happens as a whole or not at all."""

    names: dict[str, File | None]  # path to the file that it leads to afterwards, or to none


def folder_of(path: str) -> str:
    return path.rpartition("/")[0]


class Disk:
    """Files under their absolute paths. The operations are those of the system calls."""

    def __init__(self, files: dict[str, Content], choice: random.Random):
        self._choice = choice
        self._synced: dict[str, File] = {path: File(content) for path, content in files.items()}
        self._current: dict[str, File] = dict(self._synced)
        self._unsynced: list[NameChange] = []

    def file(self, path: str) -> File | None:
        """The file that a running process sees at a path."""
        return self._current.get(path)

    def create(self, path: str, mode: int) -> File:
        file = File((mode, b""))
        self._change({path: file})
        return file

    def write(self, file: File, offset: int, data: bytes) -> None:
        file.write(offset, data, self._choice)

    def link(self, source: str, path: str) -> None:
        self._change({path: self._current[source]})

    def rename(self, source: str, path: str) -> None:
        self._change({path: self._current[source], source: None})

    def unlink(self, path: str) -> None:
        self._change({path: None})

    def sync_folder(self, folder: str) -> None:
        left = []
        for change in self._unsynced:
            if any(folder_of(path) == folder for path in change.names):
                self._apply(change, self._synced)
            else:
                left.append(change)
        self._unsynced = left

    def possible(self, path: str) -> Iterator[Content | None]:
        """What may be found at a path after a power loss, none where there may be no file. Of several unsynced changes
        of a name the last one that reached the disk counts, and that may be each of them."""
        candidates = [self._synced.get(path), *(change.names[path] for change in self._unsynced if path in change.names)]
        for file in dict.fromkeys(candidates):
            if file is None:
                yield None
            else:
                yield from file.possible(self._choice)

    def _change(self, names: dict[str, File | None]) -> None:
        change = NameChange(names)
        self._unsynced.append(change)
        self._apply(change, self._current)

    @staticmethod
    def _apply(change: NameChange, names: dict[str, File]) -> None:
        for path, file in change.names.items():
            if file is None:
                names.pop(path, None)
            else:
                names[path] = file
