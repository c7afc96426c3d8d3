"""Texts in files: read whole in the encoding they have, written so that no fault loses one."""

from __future__ import annotations

import bz2
import gzip
import os
import stat
from collections.abc import Iterable
from contextlib import suppress

from .._exception import TaviroError
from .._tvo import TVO

_PACKED = (".gz", ".bz2")
_NO_TEXT = bytes(byte for byte in range(32) if byte not in b"\t\n\v\f\r")


def format_of(path: str) -> tuple[str, str]:
    """The endings of a path that tell the format and the packing, in lower case, "" for none."""
    base, ending = os.path.splitext(path.lower())
    if ending not in _PACKED:
        return ending, ""
    return os.path.splitext(base)[1], ending


class Source:
    """A file's text, and the errors that say where it can't be understood."""

    def __init__(self, path: str) -> None:
        self.path = path
        self.text = self._decoded(self._unpacked())

    def fault(self, line: int, why: str, code: int = TVO.Error.FILE) -> TaviroError:
        """The error for a line, counted from 0."""
        text = self.text.split("\n", line + 1)[line].strip()
        shown = text if len(text) <= 100 else text[:97] + "..."
        return TaviroError(code, f"'{self.path}', line {line + 1}: {why}. It reads: {shown}")

    def fault_at(self, place: int, why: str, code: int = TVO.Error.FILE) -> TaviroError:
        """The error for the line that a place in the text is in."""
        return self.fault(self.text.count("\n", 0, place), why, code)

    def _unpacked(self) -> bytes:
        with open(self.path, "rb") as file:
            content = file.read()
        packing = format_of(self.path)[1]
        try:
            if packing == ".gz" and content[:2] == b"\x1f\x8b":
                return gzip.decompress(content)
            if packing == ".bz2" and content[:3] == b"BZh":
                return bz2.decompress(content)
        except (OSError, EOFError, ValueError) as error:
            raise TaviroError(
                TVO.Error.FILE,
                f"'{self.path}' can't be unpacked ({error}): it is damaged or cut off",
            ) from None
        return content

    def _decoded(self, content: bytes) -> str:
        """The text: UTF-8, else Latin-1, with lines that end in a line feed."""
        if len(content.translate(None, _NO_TEXT)) < len(content):
            place = next(k for k, byte in enumerate(content) if byte in _NO_TEXT)
            line = content.count(b"\n", 0, place) + 1
            raise TaviroError(
                TVO.Error.FILE,
                f"'{self.path}', line {line}: the byte {content[place]:#04x} belongs to no text in "
                f"UTF-8 or Latin-1: unpack the file, or save it as UTF-8",
            )
        try:
            text = content.decode("utf-8-sig")
        except UnicodeDecodeError:
            text = content.decode("latin-1")
        return text.replace("\r\n", "\n").replace("\r", "\n") if "\r" in text else text


def save(path: str, parts: Iterable[str]) -> None:
    """Write the parts, one after the other, as the whole content of a file.

    They go to a new file beside it, which takes its place once everything is on the disk: whatever
    fails, an old file stays as it was. What is no ordinary file (a pipe, a device) is written to
    as it is. TaviroError where that doesn't work.
    """
    try:
        target = os.path.realpath(path)
        mode = _mode_of(target)
        if mode is not None and stat.S_ISDIR(mode):
            raise IsADirectoryError("it is a folder: put a file name behind it")
        if mode is None or stat.S_ISREG(mode):
            _replace(target, mode, path, parts)
        else:
            with open(target, "wb") as file:
                _fill(file.fileno(), path, parts)
    except (OSError, ValueError) as error:  # ValueError: a path with a null character
        why = getattr(error, "strerror", None) or str(error)
        raise TaviroError(
            TVO.Error.FILE, f"The model can't be written to '{path}': {why}"
        ) from error


def _mode_of(target: str) -> int | None:
    try:
        return os.stat(target).st_mode
    except FileNotFoundError:
        return None


def _replace(target: str, mode: int | None, path: str, parts: Iterable[str]) -> None:
    folder, name = os.path.split(target)
    beside = os.path.join(folder, f".{name[:100]}.{os.getpid()}-{os.urandom(4).hex()}~")
    descriptor = os.open(beside, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_CLOEXEC, 0o666)
    try:
        try:
            if mode is not None:
                os.fchmod(descriptor, stat.S_IMODE(mode))
            _fill(descriptor, path, parts)
            os.fsync(descriptor)
        finally:
            os.close(descriptor)
        os.replace(beside, target)
    except BaseException:
        with suppress(OSError):
            os.unlink(beside)
        raise


def _fill(descriptor: int, path: str, parts: Iterable[str]) -> None:
    packing = format_of(path)[1]
    with open(descriptor, "wb", closefd=False) as file:
        if packing == ".gz":
            with gzip.GzipFile("", "wb", 6, file, mtime=0) as packed:
                for part in parts:
                    packed.write(part.encode())
        elif packing == ".bz2":
            with bz2.BZ2File(file, "wb") as packed_too:
                for part in parts:
                    packed_too.write(part.encode())
        else:
            for part in parts:
                file.write(part.encode())
