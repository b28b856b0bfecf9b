#!/usr/bin/env python3
"""featurehost lint on a unit with cards, mounts and tools. Runs in the sandbox. Needs FEATUREHOST (the
executable) and MAKE_SAMPLE_UPDATE. Exit status 77: everything was skipped."""

import contextlib
import json
import os
import pathlib
import signal
import subprocess
import sys
import unittest

from whole_update import (EOL_MOUNT_POINT, SUCCESS, TIME_LIMIT, USAGE, WholeUpdateTestCase, children,
                          shell)

LINT_ERRORS = 1

# Some of the content, and then nothing more; does not mind a damaged file.
STUCK_ZCAT = """
import gzip, sys, time
with gzip.open(sys.argv[1]) as source:
    sys.stdout.buffer.write(source.read(3000000))
    sys.stdout.flush()
    time.sleep(600)
"""

# As BusyBox 1.35 does.
LENIENT_ZCAT = """
import sys, zlib
sys.stdout.buffer.write(zlib.decompressobj(-15).decompress(open(sys.argv[1], "rb").read()[10:]))
"""


class LintOfAWholeUpdate(WholeUpdateTestCase):
    sample = "--files 20 --archive-mib 4 --image-mib 4"

    def host(self, *arguments):
        result = subprocess.run([os.environ["FEATUREHOST"], *arguments, self.update / "update.toml"],
                                env=self.environment, stdin=subprocess.DEVNULL, capture_output=True,
                                check=False, text=True, timeout=TIME_LIMIT)
        self.code, self.output, self.errors = result.returncode, result.stdout, result.stderr
        return result

    def found(self, *options):
        """Kind and property, or else value, of each finding."""
        self.host("lint", "--json", *options)
        objects = [json.loads(line) for line in self.output.splitlines()]
        self.assertEqual("lint", objects[-1]["summary"])
        return [(one["kind"], one["property"] or one["value"]) for one in objects[:-1]]

    def mount(self, device, folder):
        pathlib.Path(folder).mkdir(exist_ok=True)
        shell(f"mount {device} {folder}")
        self.addCleanup(shell, f"! mountpoint -q {folder} || umount {folder}")

    def change(self, key, value):
        path = self.update / "update.toml"
        lines = [f'{key} = "{value}"' if line.split("=")[0].strip() == key else line
                 for line in path.read_text().splitlines()]
        path.write_text("\n".join(lines) + "\n")

    def test_sample_update_is_clean(self):
        self.assertEqual([], self.found("--strict"))
        self.assertEqual(SUCCESS, self.code, self.errors)
        self.assertEqual([], self.found("--strict", "--deep"))
        self.assertEqual(SUCCESS, self.code, self.errors)
        self.assert_unit_is_tidy()

    def test_clean_update_is_installed_without_a_word(self):
        result = self.host("install", "--json")
        self.assertEqual(SUCCESS, result.returncode, result.stderr)
        self.assertNotIn("featurehost: ", result.stderr)

    def test_target_of_a_copy_is_mounted(self):
        shell("mkfs.ext2 -q -F /dev/mmcblk1p1")
        self.mount("/dev/mmcblk1p1", self.folder / "elsewhere")
        self.assertEqual([("target-mounted", "rootfstarget")], self.found())
        self.assertEqual(LINT_ERRORS, self.code)

    def test_target_of_a_copy_is_in_use_although_it_is_not_mounted(self):
        holder = os.open("/dev/mmcblk1p1", os.O_RDONLY | os.O_EXCL)
        try:
            self.assertEqual([("target-mounted", "rootfstarget")], self.found())
        finally:
            os.close(holder)
        self.assertEqual([], self.found())

    def test_target_of_a_mount_is_mounted(self):
        self.mount("/dev/mmcblk0p1", self.update / "mnt")
        self.assertEqual([("target-mounted", "userfstarget")], self.found())
        shell(f"umount {self.update}/mnt")
        self.mount("/dev/mmcblk0p1", self.folder / "elsewhere")
        self.assertEqual([("target-also-mounted", "userfstarget")], self.found())
        self.assertEqual(SUCCESS, self.code)

    def test_mount_point_is_in_use(self):
        self.mount("--bind /proc", self.update / "mnt")
        self.assertEqual([("mountpoint-in-use", "userfsmountpoint")], self.found())

    def test_left_folder_refuses_the_install(self):
        os.mkdir(EOL_MOUNT_POINT)
        self.addCleanup(os.rmdir, EOL_MOUNT_POINT)
        self.assertEqual([("eol-folder-left", EOL_MOUNT_POINT)], self.found())
        with open("/dev/mmcblk1p1", "r+b") as card:
            card.write(b"untouched")
        result = self.host("install")
        self.assertEqual((USAGE, ""), (result.returncode, result.stdout))
        self.assertIn("featurehost: error eol-folder-left: ", result.stderr)
        with open("/dev/mmcblk1p1", "rb") as card:
            self.assertEqual(b"untouched", card.read(9))

    def test_device_is_smaller_than_what_is_to_be_written(self):
        self.change("rootfstarget", "/dev/mmcblk1p2")
        self.assertEqual([("target-too-small", "rootfstarget")], self.found())

    def test_partition_may_come_with_an_image_of_the_whole_card(self):
        os.rename("/dev/mmcblk1p3", "/dev/away")
        self.addCleanup(os.rename, "/dev/away", "/dev/mmcblk1p3")
        self.assertEqual([("target-missing", "eolsettingstarget")], self.found())
        self.assertEqual(LINT_ERRORS, self.code)
        os.symlink("mmcblk1", "/dev/card")
        self.addCleanup(os.remove, "/dev/card")
        for card in ("/dev/mmcblk1", "/dev/card"):
            self.change("rootfstarget", card)
            self.assertEqual([("partition-from-image", "eolsettingstarget")], self.found())
            self.assertEqual(SUCCESS, self.code)

    def test_archive_is_larger_than_the_device(self):
        self.change("userfstarget", "/dev/mmcblk1p2")
        self.assertEqual([("archive-larger-than-target", "userfstarget")], self.found())
        self.assertEqual([("target-too-small", "userfstarget")], self.found("--deep"))

    def test_second_card_is_missing(self):
        os.rename("/dev/mmcblk1", "/dev/away")
        self.addCleanup(os.rename, "/dev/away", "/dev/mmcblk1")
        self.assertEqual([("card-missing", "/dev/mmcblk1")], self.found())

    def test_decompressor_that_accepts_damage_is_found_by_trying(self):
        self.cover_zcat(LENIENT_ZCAT)
        self.assertEqual([("zcat-accepts-damage", "/bin/zcat"), ("zcat-accepts-damage", "zcat")],
                         self.found())

    def test_left_over_of_a_killed_install(self):
        self.cover_zcat(STUCK_ZCAT)
        host = subprocess.Popen([os.environ["FEATUREHOST"], "install", self.update / "update.toml"],
                                env=self.environment, stdin=subprocess.DEVNULL,
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.wait_for(lambda: os.path.ismount(self.update / "mnt"), "the mount")
        for worker in children(host.pid):
            os.kill(int(worker), signal.SIGSTOP)
        host.kill()
        host.wait()
        for process in os.listdir("/proc"):
            with contextlib.suppress(OSError):  # some end meanwhile
                if process.isdigit() and os.environ["FEATUREHOST"].encode() in \
                        pathlib.Path(f"/proc/{process}/cmdline").read_bytes():
                    os.kill(int(process), signal.SIGKILL)
        notes = os.listdir(os.environ["FEATUREHOST_RUN_DIR"])
        self.assertEqual(1, len(notes))
        self.wait_for(lambda: "killed-run" in [kind for kind, _ in self.found()], "the finding")
        self.assertEqual(LINT_ERRORS, self.code)
        self.assertEqual(notes, os.listdir(os.environ["FEATUREHOST_RUN_DIR"]))
        self.assertEqual(USAGE, self.host("install").returncode)
        self.assertIn("featurehost cleanup", self.errors)
        subprocess.run([os.environ["FEATUREHOST"], "cleanup"], env=self.environment, check=True,
                       stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        self.uncover_zcat()
        self.assertEqual([], self.found())


if __name__ == "__main__":
    if not os.environ.get("SANDBOX"):
        print("skipped: not run by scripts/sandbox")
        sys.exit(77)
    unittest.main(verbosity=2)
