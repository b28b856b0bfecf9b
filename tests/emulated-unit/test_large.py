"""An image of more than 2 GiB, and partitions behind it. Takes about a quarter of an hour."""

import gzip
import unittest

import updates
from cards import Card, Partition
from harness import MIB, UnitTest
from updates import Update

GIB = 1024 * MIB


class LargeImageTest(UnitTest):
    timeout = 3600
    cached = False  # see docs/emulated-unit.md: the emulated machine freezes otherwise

    def test_more_than_2_gib(self):
        """Offsets and sizes beyond a signed 32-bit number, and what lies behind on the card."""
        update = Update(self.share)
        size = 2 * GIB + 3 * MIB + 512
        pieces = {0: b"the start", 2 * GIB - 5: b"across 2 GiB", size - 7: b"the end"}
        self.write_image(size, pieces)
        items = ["rootfs", "checkrootfs", "factorydata", "eolsettings"]
        update.configure(items, rootfstargetsize=size, rootfsblocksize="32k")
        card0 = Card(self.folder / "card0.img", 1, [])
        card1 = Card(self.folder / "card1.img", 4096,
                     [Partition(2100), Partition(2), Partition(8, "ext3")])
        # Stale content in place of zeros would show.
        for position in (4096, 2 * GIB + 4096):
            card1.write(1, position, b"stale")

        run = self.install([card0, card1])

        self.assert_installed(run)
        self.assert_content(card1, size, pieces)
        self.assertEqual([], updates.wrong_with_factorydata(update, card1))
        self.assertEqual([], updates.wrong_with_eolsettings(update, card1))
        percentages = run.percentages()
        self.assertEqual(sorted(percentages), percentages)
        self.assertGreater(len(percentages), 100, "progress all the way")

    def write_image(self, size, pieces):
        with gzip.open(self.share / "rootfs.img.gz", "wb", 1) as image:
            position = 0
            for start, piece in sorted(pieces.items()):
                self.write_zeros(image, start - position)
                image.write(piece)
                position = start + len(piece)
            self.write_zeros(image, size - position)

    @staticmethod
    def write_zeros(image, count):
        zeros = bytes(MIB)
        for _ in range(count // MIB):
            image.write(zeros)
        image.write(bytes(count % MIB))

    def assert_content(self, card, size, pieces):
        for start in range(0, size, MIB):
            expected = bytearray(min(MIB, size - start))
            for position, piece in pieces.items():
                for number, byte in enumerate(piece):
                    if 0 <= position + number - start < len(expected):
                        expected[position + number - start] = byte
            found = card.read(1, start, len(expected))
            self.assertTrue(expected == found, f"differs in the MiB at {start}")


if __name__ == "__main__":
    unittest.main()
