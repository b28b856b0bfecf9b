"""Complete updates on real (emulated) cards, compared afterwards from outside."""

import gzip
import os
import unittest

import updates
from cards import FileSystem
from harness import INSTALL_ANYWAY, MIB, Card, Partition, UnitTest
from updates import MOUNT_POINT, Update, make_cards


class CompleteUpdate:
    """The whole list; the classes below say with which tools."""

    def test_ext3(self):
        self.install_everything("ext3")

    def test_end_of_line_settings_on_fat(self):
        self.install_everything("vfat")

    def install_everything(self, eol):
        update = Update(self.share, seed=7)
        cards = make_cards(self.folder, eol=eol)
        tables = [card.table() for card in cards]
        untouched = cards[1].copy(self.folder / "before.img")

        run = self.install(cards)

        self.assert_installed(run)
        self.assertEqual([], updates.wrong_with(update, *cards, self.folder_times))
        self.assertEqual(tables, [card.table() for card in cards])
        self.assert_progress(run)
        for number, start in ((1, len(update.image)), (2, update.factory_size)):
            length = cards[1].partitions[number - 1].size - start
            self.assertTrue(
                untouched.read(number, start, length) == cards[1].read(number, start, length),
                f"partition {number} changed behind what was installed")

    def assert_progress(self, run):
        percentages = run.percentages()
        self.assertEqual(sorted(percentages), percentages, "never falls")
        self.assertEqual(100, percentages[-1])
        # One report from each kind of item at least: the archive, the check, the two small ones.
        for percent in (50, 95, 100):
            self.assertIn(percent, percentages)
        first, last = ([event["elapsed_ms"] for event in run.events if event.get("code") == 205][end]
                       for end in (0, -1))
        self.assertLess(first, last * 3 / 4, "reported while it runs, not at the end")
        codes = [event["code"] for event in run.events if "code" in event]
        self.assertEqual([200, 201, 202, 203], codes[:4])
        self.assertEqual(1, codes.count(204))


class GnuTest(CompleteUpdate, UnitTest):
    tools = "gnu"
    folder_times = True


class BusyBoxTest(CompleteUpdate, UnitTest):
    tools = "busybox"
    folder_times = False

    def test_folders_get_the_time_of_unpacking(self):
        update = Update(self.share)
        update.configure(["userfs"])
        cards = make_cards(self.folder)
        self.assert_installed(self.install(cards))
        wrong = updates.wrong_with_userfs(update, cards[0])
        folders = [name for name, entry in update.tree.items() if entry[0] == "folder"]
        self.assertEqual(sorted(folders), sorted(text.split(": ")[1] for text in wrong), wrong)


class DifferentToolsTest(UnitTest):
    """What GNU's and BusyBox's tools make of damaged archives and images."""

    def cut_off(self, name, keep):
        path = self.share / name
        path.write_bytes(path.read_bytes()[:keep])

    def install_cut_image(self, tools):
        self.tools = tools
        update = Update(self.share)
        self.cut_off("rootfs.img.gz", 400_000)
        update.configure(["rootfs"])
        cards = make_cards(self.folder)
        return update, cards, self.install(cards)

    def test_gnu_zcat_fails_for_a_truncated_image(self):
        _, _, run = self.install_cut_image("gnu")
        self.assert_refused(run, "ImageLoader: Failed to install image: /host/rootfs.img.gz")

    def test_busybox_zcat_takes_a_truncated_image_for_complete(self):
        update, cards, run = self.install_cut_image("busybox")
        self.assert_installed(run)
        self.assertNotEqual([], updates.wrong_with_rootfs(update, cards[1]))

    def test_the_check_finds_a_truncated_image_with_either(self):
        for tools in ("gnu", "busybox"):
            with self.subTest(tools=tools):
                update = Update(self.share) if tools == "gnu" else update
                if tools == "gnu":
                    self.cut_off("rootfs.img.gz", 400_000)
                self.tools = tools
                update.configure(["checkrootfs"])
                cards = make_cards(self.folder)
                cards[1].write(1, 0, update.image)
                self.assert_refused(self.install(cards), "Read failure on /host/rootfs.img.gz")


class WholeCardTest(UnitTest):
    """An image of a whole card, and items for the partitions that it brings."""

    def test_partitions_that_an_image_brings_are_there_for_the_items_behind_it(self):
        update = Update(self.share)
        card0, pattern = make_cards(self.folder)
        content = pattern.path.read_bytes()
        (self.share / "card.img.gz").write_bytes(gzip.compress(content, 1))
        update.configure(["card", "rootfs", "checkrootfs", "factorydata", "eolsettings"],
                         cardsource="/host/card.img.gz", cardtarget="/dev/mmcblk1",
                         cardtargetsize=len(content), cardblocksize="32k", cardchecksum="0")
        card1 = pattern.copy(self.folder / "empty.img")
        os.truncate(card1.path, 0)
        os.truncate(card1.path, len(content))

        run = self.install([card0, card1])

        self.assert_installed(run)
        self.assertEqual(3, run.errors.count("featurehost: warning partition-from-image: "))
        self.assertEqual(pattern.table(), card1.table())
        self.assertEqual([], updates.wrong_with_rootfs(update, card1) +
                         updates.wrong_with_factorydata(update, card1) +
                         updates.wrong_with_eolsettings(update, card1))

    def test_a_partition_holds_no_partitions(self):
        update = Update(self.share)
        update.configure(["rootfs", "factorydata"], factorydatatarget="/dev/mmcblk1p1p1")
        code, console = self.on_unit("featurehost lint /host/update.toml", make_cards(self.folder))
        self.assertEqual(1, code, console)
        self.assertIn("error target-missing: feature 'maincpu', item 'factorydata'", console)


class RefusedTest(UnitTest):
    def test_an_archive_is_not_unpacked_onto_fat(self):
        update = Update(self.share)
        update.configure(["userfs"])
        cards = make_cards(self.folder, userfs="vfat")
        before = cards[0].read(1, 0, cards[0].partitions[0].size)
        run = self.install(cards)
        self.assert_refused(run, f"Mounting {MOUNT_POINT} failed. Error number : 32")
        self.assertTrue(before == cards[0].read(1, 0, len(before)), "the FAT partition changed")

    def test_the_first_card_is_missing(self):
        update = Update(self.share)
        update.configure(["userfs", "factorydata"])
        _, card1 = make_cards(self.folder)
        run = self.install([None, card1], INSTALL_ANYWAY + "\ncode=$?\n")
        self.assert_refused(run, f"Mounting {MOUNT_POINT} failed. Error number : 32")
        # An archive that could not be begun counts as failed and, with as many bytes done as it
        # has, as finished too: the next item is begun, and this one ends before the host can stop.
        self.assertEqual([], updates.wrong_with_factorydata(update, card1))

    def test_the_second_card_is_missing(self):
        update = Update(self.share)
        card0, _ = make_cards(self.folder)
        # dd makes a file of the device's name and succeeds; what tells is the partition table.
        run = self.install([card0, None], INSTALL_ANYWAY + "\ncode=$?\nrm -f /dev/mmcblk1p*\n")
        self.assert_refused(run, "fdisk: failed to write partition table: 1")
        self.assertEqual([], updates.wrong_with_userfs(update, card0))

    def test_the_card_is_too_small_for_the_image(self):
        update = Update(self.share)
        update.configure(["rootfs", "checkrootfs"])
        card0, _ = make_cards(self.folder)
        card1 = Card(self.folder / "small.img", 8, [Partition(3), Partition(2)])
        card1.write(2, 0, b"the neighbour")
        run = self.install([card0, card1], INSTALL_ANYWAY + "\ncode=$?\n")
        self.assert_refused(run, "ImageLoader: Failed to install image: /host/rootfs.img.gz")
        self.assertEqual(b"the neighbour", card1.read(2, 0, 13))

    def test_a_card_that_is_too_small_for_the_archive_is_not_noticed(self):
        update = Update(self.share, archive_size=14 * MIB)
        update.configure(["userfs", "factorydata"])
        cards = make_cards(self.folder, size0=16)
        run = self.install(cards)
        # tar alone notices that the file system is full, takes the rest all the same, and its exit
        # code is not looked at.
        self.assertEqual(0, run.code, run.errors)
        self.assertIn("No space left on device", run.errors)
        self.assertNotEqual([], updates.wrong_with_userfs(update, cards[0]))
        with FileSystem(cards[0], 1) as system:
            self.assertEqual("", system.errors())

    def test_one_flipped_bit_is_found(self):
        update = Update(self.share)
        update.configure(["checkrootfs"])
        cards = make_cards(self.folder)
        position = 2 * MIB + 4100
        damaged = bytearray(update.image)
        damaged[position] ^= 0x10
        cards[1].write(1, 0, damaged)
        run = self.install(cards)
        start = position // 4096 * 4096
        self.assert_refused(run, f"Comparison failure between {start} and {start + 4096}")

    def test_the_same_card_without_the_flipped_bit_is_found_good(self):
        update = Update(self.share)
        update.configure(["checkrootfs"])
        cards = make_cards(self.folder)
        cards[1].write(1, 0, update.image)
        self.assert_installed(self.install(cards))


if __name__ == "__main__":
    unittest.main()
