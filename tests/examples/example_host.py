#!/usr/bin/env python3
"""The example host with real updates. Needs EXAMPLE_HOST, EXAMPLE_MODULE, MODULE, CLONE_MODULE,
SYNC_SPY and SOURCES (the project's folder); WholeUpdate runs in the sandbox."""

import gzip
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import tomllib
import unittest

HOST = os.environ["EXAMPLE_HOST"]
SOURCES = pathlib.Path(os.environ["SOURCES"])
TIME_LIMIT = 100  # seconds; takes a few on a machine that is not busy


def children():
    return pathlib.Path(f"/proc/{os.getpid()}/task/{os.getpid()}/children").read_text().split()


class HostTestCase(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="example-host-"))
        self.addCleanup(shutil.rmtree, self.folder)

    def run_host(self, properties, module=None, **options):
        """The result, with what it and its tools have printed; they have all ended by then."""
        settings = dict(stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                        text=True, timeout=TIME_LIMIT, check=False)
        settings.update(options)
        texts = {key: str(value) for key, value in properties.items()}
        return subprocess.run(
            [HOST, module or os.environ["MODULE"]], env={**os.environ, **texts}, **settings)

    def assert_ended(self, code, last_line, result):
        self.assertEqual(code, result.returncode, result)
        self.assertEqual(last_line, result.stdout.splitlines()[-1], result)
        self.assertEqual(1, result.stdout.count("installed"), result)
        self.assertEqual([], children())


class Host(HostTestCase):
    def update(self):
        """Factory data, and a check of an image of several steps, all on files."""
        factory = os.urandom(65536)
        image = os.urandom(5000000)
        (self.folder / "factory.bin").write_bytes(factory)
        (self.folder / "image").write_bytes(image)
        (self.folder / "image.gz").write_bytes(gzip.compress(image, 1))
        self.expected = factory[1024:1024 + 4096]
        return {
            "updatelist": "factorydata;checkrootfs", "updateprogresslist": "50;50",
            "factorydatasource": self.folder / "factory.bin",
            "factorydatatarget": self.folder / "device",
            "factorydataoffset": 1024, "factorydatasize": 4096,
            "rootfssource": self.folder / "image.gz", "rootfstarget": self.folder / "image",
            "rootfstargetsize": len(image)}

    def test_is_shorter_than_150_lines(self):
        lines = (SOURCES / "examples/host/Host.cpp").read_text().splitlines()
        self.assertLess(len(lines), 150)
        self.assertEqual([], [line for line in lines if len(line) > 100])

    def test_restores_factory_data_and_checks_an_image(self):
        result = self.run_host(self.update())
        self.assert_ended(0, "installed", result)
        self.assertEqual(self.expected, (self.folder / "device").read_bytes())
        self.assertEqual(["50 %", "71 %", "92 %", "installed"], result.stdout.splitlines())

    def test_failed_check_is_told_once(self):
        update = self.update()
        with open(self.folder / "image", "r+b") as image:
            image.seek(3000000)
            image.write(b"something else")
        result = self.run_host(update)
        self.assert_ended(1, "not installed", result)
        self.assertIn("Comparison failure between", result.stderr)

    def test_missing_property_fails_the_prepare_and_nothing_is_written(self):
        update = self.update()
        del update["factorydatasize"]
        self.assert_ended(1, "not installed", self.run_host(update))
        self.assertFalse((self.folder / "device").exists())

    def test_clone_that_comes_back_ends_without_a_word(self):
        for how in ("return", "post", "log"):
            with self.subTest(how):
                result = self.run_host({"clone": how}, os.environ["CLONE_MODULE"])
                self.assert_ended(0, "installed", result)
                self.assertNotIn("the clone lives", result.stderr)
                self.assertNotIn("written by the clone", result.stderr)

    def test_ignored_sigchld_does_not_make_a_failure_a_success(self):
        update = self.update()
        update["updatelist"] = "factorydata"
        (self.folder / "factory.bin").unlink()
        result = self.run_host(
            update, preexec_fn=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN))
        self.assert_ended(1, "not installed", result)

    def test_file_systems_are_flushed_before_the_result_is_told(self):
        spy = {"LD_PRELOAD": os.environ["SYNC_SPY"], "ASAN_OPTIONS": "verify_asan_link_order=0"}
        result = self.run_host({**self.update(), **spy}, stderr=subprocess.STDOUT)
        self.assert_ended(0, "installed", result)
        self.assertLess(result.stdout.index("sync()"), result.stdout.index("installed"))

    def test_runs_the_example_module(self):
        result = self.run_host({}, os.environ["EXAMPLE_MODULE"])
        self.assert_ended(0, "installed", result)
        self.assertEqual(["25 %", "50 %", "75 %", "100 %", "installed"], result.stdout.splitlines())

    def test_file_that_is_no_module_is_refused(self):
        result = self.run_host({}, str(SOURCES / "README.md"))
        self.assertEqual((2, ""), (result.returncode, result.stdout))
        self.assertIn("no module", result.stderr)


class WholeUpdate(HostTestCase):
    def setUp(self):
        if "SANDBOX" not in os.environ:
            self.skipTest("not run by scripts/sandbox")
        super().setUp()
        self.sample = pathlib.Path(os.environ["SANDBOX_DIR"]) / "sample"
        subprocess.run([SOURCES / "scripts/make-sample-update", "--files", "50", "--archive-mib", "8",
                        "--image-mib", "8", self.sample], check=True)
        self.addCleanup(shutil.rmtree, self.sample)
        subprocess.run("mkfs.ext3 -q -F /dev/mmcblk0p1 && mkfs.ext2 -q -F /dev/mmcblk1p3",
                       shell=True, check=True)

    def test_installs_every_kind_of_item(self):
        update = tomllib.loads((self.sample / "update.toml").read_text())["maincpu"]
        result = self.run_host(update)
        self.assert_ended(0, "installed", result)

        def same(left, right, *options):
            subprocess.run(["cmp", *options, left, right], check=True)

        same(self.sample / "rootfs.img", "/dev/mmcblk1p1", "-n", str(8 << 20))
        same(self.sample / "factory.bin", "/dev/mmcblk1p2", "-n", "4096", "-i", "1024:0")
        for device, expected in (("/dev/mmcblk0p1", self.sample / "tree"), ("/dev/mmcblk1p3", None)):
            subprocess.run(["mount", "-o", "ro", device, self.folder], check=True)
            try:
                if expected is None:
                    same(self.sample / "settings.bin", self.folder / "cfg/eol.bin",
                         "-n", "2048", "-i", "512:0")
                else:
                    subprocess.run(["diff", "-r", "--no-dereference", "-x", "lost+found", expected,
                                    self.folder], check=True)
            finally:
                subprocess.run(["umount", self.folder], check=True)

    def test_tool_that_cannot_be_executed_fails_once_and_leaves_no_second_host(self):
        update = tomllib.loads((self.sample / "update.toml").read_text())["maincpu"]
        update["updatelist"] = "checkrootfs"
        zcat = os.path.realpath("/bin/zcat")
        subprocess.run(["mount", "--bind", "/dev/null", zcat], check=True)
        try:
            result = self.run_host(update)
        finally:
            subprocess.run(["umount", zcat], check=True)
        self.assert_ended(1, "not installed", result)
        self.assertIn("Read failure on", result.stderr)
        # What the clone would say, were it to go on.
        self.assertNotIn("Cannot open input or output file", result.stderr)


if __name__ == "__main__":
    unittest.main(verbosity=2)
