"""Inputs of 1 MiB in shapes that are made to take long or much memory."""

import io
import struct
import zipfile
from collections.abc import Iterator

MIB = 1 << 20

# What takes longer than a second by its nature, and how long it may take. A binary part that is read, and any part that
# is committed, costs a temporary file and the folders of its name, which is as fast as the system makes and removes
# them.
MORE_SECONDS = {name: 10.0 for name in ("binary-parts", "binary-parts-no-base64", "parts-in-folders",
                                        "parts-without-content", "parts-of-one-byte", "metadata-parts", "trash")}

BEGIN = b"__ZKOPC_PACKAGE_BEGIN__ V3508k\n"
PART = b"__ZKOPC_PART_BEGIN__ "
CONTENT_TYPES = PART + b"/[Content_Types].xml\n<Types/>\n"
HEAD = BEGIN + CONTENT_TYPES
TAIL = b"\n" + PART + b"/last.txt\nlast\n__ZKOPC_PACKAGE_END__\n"


def filled(piece: bytes, head: bytes = HEAD, tail: bytes = TAIL) -> bytes:
    """A package text of 1 MiB at most, made of one piece again and again."""
    return head + piece * ((MIB - len(head) - len(tail)) // len(piece)) + tail


def numbered(form: str) -> bytes:
    """The same, each piece with its number in it."""
    pieces = []
    size = len(HEAD) + len(TAIL)
    while size < MIB - 200:
        pieces.append(form.format(len(pieces)).encode())
        size += len(pieces[-1])
    return HEAD + b"".join(pieces) + TAIL


def hostile_texts() -> Iterator[tuple[str, bytes]]:
    part = PART.decode()
    in_text = HEAD + PART + b"/a.txt\n"
    in_binary = HEAD + PART + b"/a.bin BASE64\n"
    yield "begin-lines", filled(BEGIN)
    yield "begin-lines-alone", filled(BEGIN, b"", b"")
    yield "end-lines", filled(b"__ZKOPC_PACKAGE_END__\n")
    yield "parts-without-content", numbered(part + "/{}\n")
    yield "parts-of-one-byte", numbered(part + "/{}\nx\n")
    yield "binary-parts", numbered(part + "/{} BASE64\nAA==\n")
    yield "binary-parts-no-base64", numbered(part + "/{} BASE64\nA\n")
    yield "parts-in-folders", numbered(part + "/{0}/a/b/c/d/e/f/g/h BASE64\nAA==\n")
    yield "metadata-parts", numbered(part + "/metadata/{}\nx\n")
    yield "trash", numbered(part + "/[trash]/{}\nx\n")
    yield "same-name", filled(PART + b"/a\nx\n")
    yield "same-name-binary", filled(PART + b"/a BASE64\nAA==\n")
    yield "same-name-in-other-cases", filled(PART + b"/a\nx\n" + PART + b"/A\nx\n")
    yield "empty-names", filled(PART + b"\nx\n")
    yield "long-name", HEAD + PART + b"/" + b"n" * (MIB - 300) + b" BASE64\nAA==" + TAIL
    yield "long-name-of-folders", HEAD + PART + b"/a" * (MIB // 2 - 150) + b" BASE64\nAA==" + TAIL
    yield "long-name-of-slashes", HEAD + PART + b"/" * (MIB - 300) + b" BASE64\nAA==" + TAIL
    yield "long-name-of-escapes", HEAD + PART + b"/" + b"%41" * (MIB // 3 - 150) + b"\nAA==" + TAIL
    yield "long-name-not-ascii", HEAD + PART + b"/" + "ä".encode() * (MIB // 2 - 150) + b" BASE64\nAA==" + TAIL
    yield "long-names", numbered(part + "/" + "n" * 5000 + "{} BASE64\nAA==\n")
    yield "lines-of-one-byte", filled(b"x\n", in_text)
    yield "empty-lines", filled(b"\n", in_text)
    yield "empty-lines-before-parts", filled(b"\n", BEGIN, CONTENT_TYPES + TAIL)
    yield "carriage-returns", filled(b"\r", in_text)
    yield "carriage-returns-alone", b"\r" * MIB
    yield "crlf-lines", filled(b"\r\n", in_text)
    yield "nuls", filled(b"\0", in_text)
    yield "one-line", filled(b"x", in_text)
    yield "one-line-in-header", filled(b"x", b"", b"\n" + HEAD + TAIL)
    yield "header-lines", b"".join(b"h" * 49_000 + b"\n" for _ in range(21)) + HEAD + TAIL
    yield "marker-beginnings", filled(b"__ZKOPC_PA\n", in_text)
    yield "marker-beginnings-in-one-line", filled(b"__ZKOPC_PA", in_text)
    yield "nearly-markers", filled(b"__ZKOPC_PART_BEGIN_\n__ZKOPC_PACKAGE_END__ \n", in_text)
    yield "underscores", filled(b"_", in_text)
    yield "base64-lines", filled(b"A" * 76 + b"\n", in_binary)
    yield "base64-lines-of-four", filled(b"AAEC\n", in_binary)
    yield "base64-in-one-line", HEAD + PART + b"/a.bin BASE64\n" + b"AAEC" * 260_000 + TAIL
    yield "base64-spaces", filled(b" ", in_binary)
    yield "base64-never-ends", filled(b"A" * 76 + b"\n", in_binary, b"")
    yield "tail", filled(b"behind the end\n", HEAD + TAIL, b"")
    yield "tail-in-one-line", filled(b"x", HEAD + TAIL, b"")
    yield "many-requests", b"/request\n" * 50_000 + b"%%\n" + numbered(part + "/{}\nx\n")[:MIB // 2] + TAIL


def zip_of(members: Iterator[tuple[str, bytes]], method: int = zipfile.ZIP_DEFLATED, comment: bytes = b"") -> bytes:
    file = io.BytesIO()
    with zipfile.ZipFile(file, "w", method) as archive:
        archive.writestr("[Content_Types].xml", "<Types/>")
        for name, content in members:
            archive.writestr(name, content)
        archive.comment = comment
    return file.getvalue()


def hostile_zips() -> Iterator[tuple[str, bytes]]:
    yield "zip-empty-members", zip_of((str(number), b"") for number in range(9_000))
    yield "zip-folders", zip_of((f"{number}/", b"") for number in range(9_000))
    yield "zip-long-names", zip_of(("n" * 65_000 + str(number), b"") for number in range(8))
    yield "zip-names-of-folders", zip_of(("a/" * 30_000 + str(number), b"") for number in range(8))
    yield "zip-names-of-escapes", zip_of((" " * 60_000 + str(number), b"") for number in range(8))
    bomb = zip_of([("bomb", bytes(900 * MIB))])
    yield "zip-bomb", bomb
    for name, size in {"small": 10, "plausible": 200 * MIB, "impossible": 0xFFFFFFF0}.items():
        yield f"zip-bomb-that-seems-{name}", bomb.replace(struct.pack("<I", 900 * MIB), struct.pack("<I", size))
    yield "zip-small-bombs", zip_of((str(number), bytes(4 * MIB)) for number in range(3))
    yield "zip-end-records", zip_of([("a", b"PK\x05\x06" * 200_000)], zipfile.ZIP_STORED, b"PK\x05\x06" * 16_000)
    yield "zip-bytes-behind", (zip_of([("a", b"a")]) + b"PK\x05\x06" * 16_000)
    yield "zip-end-records-alone", b"PK\x05\x06" * (MIB // 4)
    yield "zip-no-zip", bytes(MIB)
    yield "zip-marker-beginnings", zip_of([("a", b"__ZKOPC_P" * 100_000)], zipfile.ZIP_STORED)
    yield "zip-control-characters", zip_of([("a", bytes(range(32)) * 30_000)], zipfile.ZIP_STORED)


def hostile_bytes() -> Iterator[tuple[str, bytes]]:
    for name, piece in {"a": b"A", "paddings": b"=", "spaces": b" ", "line-breaks": b"\n", "nuls": b"\0",
                        "high": b"\xff", "continuations": b"\x80", "lead-bytes": b"\xf0", "surrogates": b"\xed\xa0\x80",
                        "units": b"\x00\xd8", "slashes": b"/", "folders": b"/a", "not-ascii": "ä".encode(),
                        "base64": b"AAEC", "tildes": b"~"}.items():
        yield f"bytes-{name}", piece * (MIB // len(piece))
    yield "bytes-two-long-names", b"/" + b"n" * (MIB // 2 - 8) + b"\n/" + b"n" * (MIB // 2 - 8)
