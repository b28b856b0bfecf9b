"""What the tests of complete updates share: a sample update, stand-ins for tools, and a look at how
a run has left the unit. For use inside scripts/sandbox."""

import contextlib
import os
import pathlib
import shutil
import subprocess
import sys
import time
import unittest

SUCCESS, INSTALL_FAILED, USAGE, ABORTED = 0, 1, 2, 130
TIME_LIMIT = 60
EOL_MOUNT_POINT = "/tmp/eolmountpoint"


def shell(line):
    subprocess.run(["sh", "-c", line], check=True)


def mounts():
    lines = pathlib.Path("/proc/self/mountinfo").read_text().splitlines()
    return sorted(line.split()[4] for line in lines)


def loop_devices():
    """Those of this sandbox that have a file attached, with its path."""
    found = []
    for node in pathlib.Path("/dev").glob("loop*"):
        with contextlib.suppress(OSError):
            file = pathlib.Path(f"/sys/block/{node.name}/loop/backing_file").read_text().strip()
            found.append((node.name, file))
    return sorted(found)


def children(of=None):
    of = of or os.getpid()
    return pathlib.Path(f"/proc/{of}/task/{of}/children").read_text().split()


@unittest.skipUnless(os.environ.get("SANDBOX"), "not run by scripts/sandbox")
class WholeUpdateTestCase(unittest.TestCase):
    sample = "--files 100 --archive-mib 48 --image-mib 14"

    def setUp(self):
        self.folder = pathlib.Path(os.environ["SANDBOX_DIR"])
        self.update = self.folder / "update"
        self.tools = self.folder / "tools"
        self.tools.mkdir()
        self.addCleanup(shutil.rmtree, self.tools)
        self.environment = {**os.environ, "PATH": f"{self.tools}:{os.environ['PATH']}"}
        shell(f"{os.environ['MAKE_SAMPLE_UPDATE']} {self.sample} {self.update}")
        self.addCleanup(shutil.rmtree, self.update)
        shell("mkfs.ext3 -q -F /dev/mmcblk0p1 && mkfs.ext2 -q -F /dev/mmcblk1p3")
        self.take_stock()

    def take_stock(self):
        self.mounts_before = mounts()

    def script(self, name, body, interpreter="/bin/sh"):
        """A tool that the host finds before the real one."""
        tool = self.tools / name
        tool.write_text(f"#!{interpreter}\n{body}\n")
        tool.chmod(0o755)
        return tool

    def cover_zcat(self, body):
        """A Python program in the place of /bin/zcat. One process, so that ending it leaves nothing
        of the script's own."""
        cover = self.script("covering-zcat", body, sys.executable)
        zcat = os.path.realpath("/bin/zcat")
        shell(f"mount --bind {cover} {zcat}")
        self.addCleanup(self.uncover_zcat)
        self.take_stock()

    def uncover_zcat(self):
        zcat = os.path.realpath("/bin/zcat")
        if zcat in mounts():
            shell(f"umount {zcat}")
            self.take_stock()

    def wait_for(self, condition, what):
        end = time.monotonic() + TIME_LIMIT
        while not condition():
            self.assertLess(time.monotonic(), end, f"waited in vain for {what}")
            time.sleep(0.01)

    def assert_unit_is_tidy(self):
        self.assertEqual(self.mounts_before, mounts())
        self.assertEqual([], children())
        self.assertFalse(os.path.exists(EOL_MOUNT_POINT))
        self.assertEqual([], os.listdir(os.environ["FEATUREHOST_RUN_DIR"]))
