"""Updates with content that is the same for the same seed, and what the cards must hold then."""

import gzip
import os
import random
import tarfile
from pathlib import Path

from cards import MIB, Card, FileSystem, Partition, differences, snapshot

ITEMS = ("userfs", "rootfs", "checkrootfs", "factorydata", "eolsettings")
WEIGHTS = {"userfs": 50, "rootfs": 25, "checkrootfs": 15, "factorydata": 5, "eolsettings": 5}
MOUNT_POINT = "/mnt"
EOL_FILE = "cfg/eol.bin"


def compressible(generator, size):
    """Bytes that gzip shrinks to about a third, as programs do."""
    pieces = [generator.randbytes(64) for _ in range(64)]
    text = bytearray()
    while len(text) < size:
        text += generator.choice(pieces) + generator.randbytes(24)
    return bytes(text[:size])


class Update:
    """A complete update in a folder that the unit will see as /host."""

    def __init__(self, folder, seed=1, archive_size=3 * MIB, image_size=4 * MIB,
                 factory_size=4096, eol_size=2048):
        self.folder = Path(folder)
        generator = random.Random(seed)
        self.image = compressible(generator, image_size)
        self.factory = generator.randbytes(1024 + factory_size + 4096)
        self.settings = generator.randbytes(512 + eol_size + 4096)
        self.factory_size = factory_size
        self.eol_size = eol_size
        self._make_tree(generator, archive_size)
        self._write("rootfs.img.gz", gzip.compress(self.image, 1))
        self._write("factory.bin", self.factory)
        self._write("settings.bin", self.settings)
        self.properties = {
            "updatelist": "",
            "updateprogresslist": "",
            "userfssource": "/host/userfs.tar.gz",
            "userfstarget": "/dev/mmcblk0p1",
            "userfsmountpoint": MOUNT_POINT,
            "userfsfilesystem": "ext3",
            "rootfssource": "/host/rootfs.img.gz",
            "rootfstarget": "/dev/mmcblk1p1",
            "rootfstargetsize": len(self.image),
            "rootfsblocksize": "64k",
            "rootfschecksum": "0",
            "factorydatasource": "/host/factory.bin",
            "factorydatatarget": "/dev/mmcblk1p2",
            "factorydataoffset": 1024,
            "factorydatasize": factory_size,
            "eolsettingssource": "/host/settings.bin",
            "eolsettingstarget": "/dev/mmcblk1p3",
            "eolsettingstargetfilename": EOL_FILE,
            "eolsettingsoffset": 512,
            "eolsettingssize": eol_size,
        }
        self.configure()

    def _write(self, name, content):
        (self.folder / name).write_bytes(content)

    def _make_tree(self, generator, size):
        tree = self.folder / "tree"
        tree.mkdir()
        for number in range(60):
            path = tree / "share" / str(number % 6) / f"file-{number}.txt"
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(compressible(generator, generator.randrange(0, 6000)))
        (tree / "media").mkdir()
        (tree / "media" / "large").write_bytes(compressible(generator, size))
        (tree / "bin").mkdir()
        program = tree / "bin" / "hello"
        program.write_text("#!/bin/sh\necho hello\n")
        program.chmod(0o755)
        os.link(program, tree / "bin" / "hello-again")
        (tree / "secret").write_text("secret\n")
        (tree / "secret").chmod(0o600)
        (tree / "link").symlink_to("bin/hello")
        (tree / ("long-" + "n" * 150)).write_text("a name beyond the old header's field\n")
        for path in sorted(tree.rglob("*")):
            if not path.is_symlink():
                os.utime(path, (1_000_000_000, 1_000_000_000 + generator.randrange(10 ** 8)))
        self.tree = snapshot(tree)
        with tarfile.open(self.folder / "userfs.tar.gz", "w:gz", compresslevel=1,
                          format=tarfile.GNU_FORMAT) as archive:
            for entry in sorted(os.listdir(tree)):
                archive.add(tree / entry, entry, filter=self._as_root)

    @staticmethod
    def _as_root(entry):
        entry.uid = entry.gid = 0
        entry.uname = entry.gname = "root"
        return entry

    def configure(self, items=ITEMS, **changed):
        """Write update.toml; `changed` overrides properties."""
        properties = dict(self.properties, **changed)
        properties["updatelist"] = ";".join(items)
        properties["updateprogresslist"] = ";".join(str(WEIGHTS.get(item, 10)) for item in items)
        lines = ["[maincpu]"]
        for key, value in properties.items():
            lines.append(f'{key} = "{value}"' if isinstance(value, str) else f"{key} = {value}")
        self._write("update.toml", ("\n".join(lines) + "\n").encode())

    def expected_factory(self):
        return self.factory[1024:1024 + self.factory_size]

    def expected_settings(self):
        return self.settings[512:512 + self.eol_size]


def make_cards(folder, userfs="ext3", eol="ext3", size0=64, size1=64):
    """Cards as the sample update wants them, in the state before it."""
    folder = Path(folder)
    card0 = Card(folder / "card0.img", size0, [Partition(size0 // 2, userfs)])
    card1 = Card(folder / "card1.img", size1,
                 [Partition(size1 // 2), Partition(2), Partition(8, eol)])
    return card0, card1


def wrong_with_userfs(update, card, folder_times=True):
    with FileSystem(card, 1) as system:
        expected, found = update.tree, system.tree()
        if not folder_times:
            expected, found = without_folder_times(expected), without_folder_times(found)
        return [text for text in [system.errors()] if text] + differences(expected, found)


def without_folder_times(tree):
    return {name: entry[:2] if entry[0] == "folder" else entry for name, entry in tree.items()}


def wrong_with_rootfs(update, card):
    found = card.read(1, 0, len(update.image))
    return [] if found == update.image else [
        f"rootfs: the first difference is at byte {first_difference(update.image, found)}"]


def wrong_with_factorydata(update, card):
    found = card.read(2, 0, update.factory_size)
    return [] if found == update.expected_factory() else ["factorydata differs"]


def wrong_with_eolsettings(update, card):
    with FileSystem(card, 3) as system:
        wrong = [text for text in [system.errors()] if text]
        if system.read(EOL_FILE) != update.expected_settings():
            wrong.append("eolsettings differ")
        return wrong


def first_difference(expected, found):
    for position, (one, other) in enumerate(zip(expected, found)):
        if one != other:
            return position
    return min(len(expected), len(found))


def wrong_with(update, card0, card1, folder_times=True):
    """Everything on the cards that is not as it must be after the update, in words."""
    return (wrong_with_userfs(update, card0, folder_times) + wrong_with_rootfs(update, card1) +
            wrong_with_factorydata(update, card1) + wrong_with_eolsettings(update, card1))
