"""The file handler's format, check and free space on real partitions."""

import unittest

from cards import FileSystem
from harness import MIB, Card, Partition, UnitTest, tool_program

FAT, EXT3, EXT2, LOOPBACK = 0, 1, 2, 3
OK, FAILED = 0, 1


class FileHandlerTest(UnitTest):
    def setUp(self):
        super().setUp()
        self.tool = tool_program("filehandler-tool")

    def card(self, mebibytes, *partitions):
        return Card(self.folder / "card.img", mebibytes, list(partitions))

    def run_steps(self, card, *steps):
        """Each step is a shell line; returns what each printed and its exit code."""
        job = "".join(f"{{ {step}\n}} >/host/out.{number} 2>&1; echo $? >/host/code.{number}\n"
                      for number, step in enumerate(steps))
        code, console = self.on_unit(job, [card], [self.tool])
        self.assertEqual(0, code, console)
        return [(int((self.share / f"code.{number}").read_text()),
                 (self.share / f"out.{number}").read_text()) for number in range(len(steps))]

    def assert_result(self, expected, step):
        code, text = step
        self.assertEqual(expected, code, text)

    def test_ext3_is_formatted_mounted_used_and_found_clean(self):
        card = self.card(256, Partition(128))
        card.partitions[0].format = "ext3"  # what it will be
        formatted, options, space, busy, checked, kept = self.run_steps(
            card,
            f"filehandler-tool format /dev/mmcblk0p1 /mnt {EXT3}",
            "grep ' /mnt ' /proc/mounts && echo content >/mnt/file",
            f"filehandler-tool space /dev/mmcblk0p1 /mnt {EXT3}",
            "cd /mnt && sleep 60 & until [ \"$(readlink /proc/$!/cwd)\" = /mnt ]; do :; done; "
            f"filehandler-tool format /dev/mmcblk0p1 /mnt {EXT3}; code=$?; kill $!; "
            "( exit $code )",
            f"filehandler-tool check /dev/mmcblk0p1 /mnt {EXT3}",
            "cat /mnt/file; umount /mnt",
        )
        self.assert_result(OK, formatted)
        self.assertNotIn("errorsys", formatted[1])
        for option in ("ext3", "noexec", "noatime", "nosuid", "nodev"):
            self.assertIn(option, options[1])
        self.assert_result(OK, space)
        available = int(space[1].split("available=")[1].split()[0])
        # 128 MiB less the journal of 50 MiB and the tables.
        self.assertTrue(60 * 1024 < available < 78 * 1024, available)
        # A lazy unmount leaves the device in use, and it cannot be formatted.
        self.assert_result(FAILED, busy)
        self.assertIn("It was impossible to umount /mnt, forcing its umount", busy[1])
        self.assertIn("Formatting failed. errorsys = 1", busy[1])
        # Once it is free, what was on it is still there.
        self.assert_result(OK, checked)
        self.assertEqual("content\n", kept[1])
        self.assertIn("Device: /dev/mmcblk0p1, MountPoint: /mnt, FileSystemFormat: 1", checked[1])
        with FileSystem(card, 1) as system:
            self.assertEqual("", system.errors())
            self.assertEqual(b"content\n", system.read("/file"))

    def test_ext2_is_formatted_but_the_kernel_refuses_its_mount_options(self):
        card = self.card(64, Partition(32))
        card.partitions[0].format = "ext2"
        formatted, plain, checked, mounted = self.run_steps(
            card,
            f"filehandler-tool format /dev/mmcblk0p1 /mnt {EXT2}",
            "mount -t ext2 -o noexec,noatime /dev/mmcblk0p1 /mnt && echo content >/mnt/file",
            f"filehandler-tool check /dev/mmcblk0p1 /mnt {EXT2}",
            "grep -c ' /mnt ' /proc/mounts",
        )
        # A commit interval is for journals, and this kernel says so; the mount fails three times.
        self.assert_result(FAILED, formatted)
        self.assertIn("Error mounting/umounting", formatted[1])
        self.assertEqual(3, formatted[1].count("Mounting /mnt failed. Error number : 32"))
        self.assert_result(OK, plain)
        self.assert_result(FAILED, checked)
        self.assertIn("Error mounting/umounting. retVal = 1", checked[1])
        self.assertEqual("0\n", mounted[1])
        with FileSystem(card, 1) as system:
            self.assertEqual("", system.errors())
            self.assertEqual(b"content\n", system.read("/file"))

    def test_ext3_does_not_fit_on_40_mib(self):
        card = self.card(64, Partition(40))
        (formatted,) = self.run_steps(
            card, f"filehandler-tool format /dev/mmcblk0p1 /mnt {EXT3}")
        self.assert_result(FAILED, formatted)
        self.assertIn("Formatting failed. errorsys = 1", formatted[1])

    def test_fat_is_not_made_by_todays_mkdosfs(self):
        card = self.card(64, Partition(40, "vfat"))
        card.write(1, 5 * MIB, b"still there")
        formatted, checked, options = self.run_steps(
            card,
            f"filehandler-tool format /dev/mmcblk0p1 /mnt {FAT}",
            f"filehandler-tool check /dev/mmcblk0p1 /mnt {FAT}",
            "grep ' /mnt ' /proc/mounts; umount /mnt",
        )
        self.assert_result(FAILED, formatted)
        self.assertIn("Formatting failed. errorsys = 1", formatted[1])
        self.assertEqual(b"still there", card.read(1, 5 * MIB, 11))
        self.assert_result(OK, checked)
        self.assertIn("vfat", options[1])

    def test_a_damaged_fat_is_repaired_and_checked_once_more(self):
        card = self.card(64, Partition(40, "vfat"))
        sector = bytearray(card.read(1, 0, 512))
        reserved = int.from_bytes(sector[14:16], "little")
        # The two copies of the table differ in one entry: a chain that belongs to no file.
        card.write(1, reserved * 512 + 400, b"\x77\x00")
        checked, mounted = self.run_steps(
            card,
            f"filehandler-tool check /dev/mmcblk0p1 /mnt {FAT}",
            "grep -c ' /mnt ' /proc/mounts; umount /mnt",
        )
        self.assertIn("Checking FAT-Movinand again...", checked[1])
        self.assert_result(OK, checked)
        self.assertEqual("1\n", mounted[1])
        with FileSystem(card, 1) as system:
            self.assertEqual("", system.errors())

    def test_a_damaged_ext3_that_is_repaired_counts_as_failed_and_stays_unmounted(self):
        card = self.card(64, Partition(32, "ext3"))
        # The free block count in the superblock is wrong.
        card.write(1, 1024 + 12, b"\x01\x00\x00\x00")
        damaged, mounted, again = self.run_steps(
            card,
            f"filehandler-tool check /dev/mmcblk0p1 /mnt {EXT3}",
            "grep -c ' /mnt ' /proc/mounts",
            f"filehandler-tool check /dev/mmcblk0p1 /mnt {EXT3}; code=$?; umount /mnt; (exit $code)",
        )
        self.assert_result(FAILED, damaged)
        self.assertIn("Checking failed. errorsys = 1", damaged[1])
        self.assertEqual("0\n", mounted[1])
        self.assert_result(OK, again)

    def test_no_file_system_is_not_mounted(self):
        card = self.card(64, Partition(32))
        checked, mounted = self.run_steps(
            card,
            f"filehandler-tool check /dev/mmcblk0p1 /mnt {EXT3}",
            "grep -c ' /mnt ' /proc/mounts",
        )
        self.assert_result(FAILED, checked)
        self.assertIn("Checking failed. errorsys = 8", checked[1])
        self.assertEqual("0\n", mounted[1])


if __name__ == "__main__":
    unittest.main()
