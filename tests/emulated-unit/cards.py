"""Card images: made before the unit boots, read after it is off. Needs no root and no mounts."""

import os
import shutil
import stat
import subprocess
import tempfile
from dataclasses import dataclass, field
from pathlib import Path

MIB = 1024 * 1024
SECTOR = 512


def tool(*command, text=None):
    """Run a tool of this machine that has to succeed; returns what it printed."""
    environment = dict(os.environ, PATH="/usr/sbin:/sbin:" + os.environ["PATH"])
    result = subprocess.run([str(word) for word in command], input=text, text=True, check=False,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env=environment)
    if result.returncode != 0:
        raise AssertionError(f"{command} exited with {result.returncode}:\n{result.stdout}")
    return result.stdout


def copy_sparse(source, target, length, source_offset=0, target_offset=0):
    """Copy a range between files, leaving holes where there are only zeros."""
    with open(source, "rb") as reader, open(target, "r+b") as writer:
        reader.seek(source_offset)
        for start in range(0, length, MIB):
            block = reader.read(min(MIB, length - start))
            if block.strip(b"\0"):
                writer.seek(target_offset + start)
                writer.write(block)


@dataclass
class Partition:
    """Size in MiB and what is on it: "ext3", "ext2", "vfat" or nothing."""
    mebibytes: int
    format: str = ""
    offset: int = field(default=0, init=False)

    @property
    def size(self):
        return self.mebibytes * MIB


class Card:
    """A card image with a partition table. Partitions are numbered from 1, as on the unit."""

    def __init__(self, path, mebibytes, partitions):
        self.path = Path(path)
        self.partitions = partitions
        with open(path, "wb") as image:
            image.truncate(mebibytes * MIB)
        offset = MIB
        table = ["label: dos", "label-id: 0x4d435043"]
        for partition in partitions:
            partition.offset = offset
            table.append(f"start={offset // SECTOR}, size={partition.size // SECTOR}, type=83")
            offset += partition.size
        if offset > mebibytes * MIB:
            raise AssertionError("the partitions do not fit on the card")
        tool("sfdisk", "-q", path, text="\n".join(table) + "\n")
        for partition in partitions:
            if partition.format:
                self._format(partition)

    def _format(self, partition):
        make = {
            "ext3": ["mkfs.ext3", "-q", "-F", "-b", "1024"],
            "ext2": ["mkfs.ext2", "-q", "-F", "-b", "1024"],
            "vfat": ["mkfs.vfat"],
        }[partition.format]
        with tempfile.NamedTemporaryFile(dir=self.path.parent) as blank:
            blank.truncate(partition.size)
            tool(*make, blank.name)
            copy_sparse(blank.name, self.path, partition.size, 0, partition.offset)

    def read(self, number, start, length):
        """Bytes of a partition."""
        with open(self.path, "rb") as image:
            image.seek(self.partitions[number - 1].offset + start)
            return image.read(length)

    def write(self, number, start, content):
        with open(self.path, "r+b") as image:
            image.seek(self.partitions[number - 1].offset + start)
            image.write(content)

    def table(self):
        """The partition table proper: four entries and the mark behind them."""
        with open(self.path, "rb") as image:
            return image.read(SECTOR)[446:]

    def extract(self, number, path):
        """A partition as a file of its own."""
        partition = self.partitions[number - 1]
        with open(path, "wb") as image:
            image.truncate(partition.size)
        copy_sparse(self.path, path, partition.size, partition.offset, 0)
        return Path(path)

    def copy(self, path):
        """The same card as another image, holes kept."""
        tool("cp", "--sparse=always", self.path, path)
        twin = object.__new__(Card)
        twin.path = Path(path)
        twin.partitions = self.partitions
        return twin


class FileSystem:
    """Content of a partition with a file system, read with debugfs or mtools.

    A context manager, because it works on a copy of the partition.
    """

    def __init__(self, card, number):
        self._format = card.partitions[number - 1].format
        self._folder = tempfile.mkdtemp(prefix="maincpuloader-fs-", dir=card.path.parent)
        self.image = card.extract(number, Path(self._folder) / "image")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        shutil.rmtree(self._folder, ignore_errors=True)

    def errors(self):
        """What the checker of this machine finds wrong, or an empty text."""
        if self._format == "vfat":
            command = ["fsck.fat", "-n", self.image]
        else:
            command = ["e2fsck", "-f", "-n", self.image]
        try:
            tool(*command)
        except AssertionError as error:
            return str(error)
        return ""

    def needs_replay(self):
        """Whether an ext file system was not unmounted: its journal holds what is to be replayed."""
        return "needs_recovery" in tool("dumpe2fs", "-h", self.image)

    def replay_journal(self):
        """As the next mount would, so that the content can be read after a power cut."""
        subprocess.run(["/sbin/e2fsck", "-p", "-f", str(self.image)], check=False,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def read(self, path):
        """Content of a file, or None when there is no such file."""
        target = Path(self._folder) / "file"
        target.unlink(missing_ok=True)
        if self._format == "vfat":
            subprocess.run(["mcopy", "-i", str(self.image), f"::{path}", str(target)], check=False,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        else:
            tool("debugfs", "-R", f"dump {path} {target}", self.image)
        return target.read_bytes() if target.exists() else None

    def tree(self):
        """All that is on an ext file system, as snapshot() describes it."""
        target = Path(self._folder) / "tree"
        target.mkdir()
        tool("debugfs", "-R", f"rdump / {target}", self.image)
        (target / "lost+found").rmdir()
        return snapshot(target)


def snapshot(folder):
    """Describes a tree: path -> (kind, permissions, time of change, content)."""
    described = {}
    for path in sorted(Path(folder).rglob("*")):
        status = path.lstat()
        name = str(path.relative_to(folder))
        if path.is_symlink():
            described[name] = ("link", os.readlink(path))
        elif path.is_dir():
            described[name] = ("folder", stat.S_IMODE(status.st_mode), int(status.st_mtime))
        else:
            described[name] = ("file", stat.S_IMODE(status.st_mode), int(status.st_mtime),
                               path.read_bytes())
    return described


def differences(expected, found):
    """The differing paths of two snapshots, in words."""
    words = []
    for name in sorted(expected.keys() | found.keys()):
        if name not in found:
            words.append(f"missing: {name}")
        elif name not in expected:
            words.append(f"not expected: {name}")
        elif expected[name] != found[name]:
            what = [part if not isinstance(part, bytes) else f"{len(part)} bytes"
                    for pair in zip(expected[name], found[name]) if pair[0] != pair[1]
                    for part in pair]
            words.append(f"differs: {name}: {what}")
    return words
