#!/usr/bin/env python3
"""Complete updates whose host, or one of whose tools, is killed: what is left on the unit, what the
next install says to it, and how featurehost cleanup clears it up. Also what comes with file systems
in files. Runs in the sandbox, with the real tools. Needs FEATUREHOST (the executable) and
MAKE_SAMPLE_UPDATE. Exit status 77: everything was skipped."""

import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import unittest

from whole_update import (EOL_MOUNT_POINT, INSTALL_FAILED, SUCCESS, TIME_LIMIT, USAGE,
                          WholeUpdateTestCase, children, loop_devices, mounts, shell)

# Some of the content, and then nothing more.
STUCK_ZCAT = """
import gzip, sys, time
with gzip.open(sys.argv[1]) as source:
    sys.stdout.buffer.write(source.read(3000000))
    sys.stdout.flush()
    time.sleep(600)
"""

# Some of the content, and then little by little.
SLOW_ZCAT = STUCK_ZCAT.replace("time.sleep(600)", """
    for piece in iter(lambda: source.read(1000), b""):
        sys.stdout.buffer.write(piece)
        sys.stdout.flush()
        time.sleep(0.05)
""".strip())


def state(process):
    """The letter of a process's state; empty when it is gone."""
    try:
        return pathlib.Path(f"/proc/{process}/stat").read_text().rsplit(")", 1)[1].split()[0]
    except OSError:
        return ""


class KilledUpdateTestCase(WholeUpdateTestCase):
    def start(self):
        host = subprocess.Popen(
            [os.environ["FEATUREHOST"], "install", "--json", self.update / "update.toml"],
            env=self.environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, text=True)
        self.addCleanup(host.stderr.close)
        self.addCleanup(host.stdout.close)
        self.addCleanup(host.wait)
        self.addCleanup(host.kill)
        return host

    def run_host(self, *arguments):
        result = subprocess.run([os.environ["FEATUREHOST"], *arguments], env=self.environment,
                                stdin=subprocess.DEVNULL, capture_output=True, check=False,
                                text=True, timeout=TIME_LIMIT)
        self.output, self.errors = result.stdout, result.stderr
        return result.returncode

    def install(self):
        return self.run_host("install", self.update / "update.toml")

    def kill_both(self, host):
        """Stopped first, so that neither can do anything about the other's end."""
        worker = int(children(host.pid)[0])
        for process in (host.pid, worker):
            os.kill(process, signal.SIGSTOP)
            self.wait_for(lambda process=process: state(process) == "T", "the stop")
        os.kill(host.pid, signal.SIGKILL)
        os.kill(worker, signal.SIGKILL)
        host.wait(TIME_LIMIT)
        self.wait_for(lambda: state(worker) in ("Z", ""), "the end of the run")

    def assert_refused_and_cleaned(self, *mount_points):
        """The next install names the mounts and does nothing; cleanup clears up."""
        before = mounts()
        self.assertEqual(USAGE, self.install(), self.errors)
        self.assertEqual("", self.output)
        self.assertEqual(1, len(self.errors.splitlines()), self.errors)
        for point in mount_points:
            self.assertIn(f"mount {point} (", self.errors)
        self.assertIn("process ", self.errors)
        self.assertIn("run featurehost cleanup", self.errors)
        self.assertEqual(before, mounts())

        self.assertEqual(SUCCESS, self.run_host("cleanup"), self.output + self.errors)
        for point in mount_points:
            self.assertRegex(self.output, rf"(?m)^mount {point} \(.*\): unmounted$")
        self.assertRegex(self.output, r"(?m)^process \d+ \(.*\): (ended|killed|had ended)$")
        self.assert_unit_is_tidy()


class KilledDuringTheArchive(KilledUpdateTestCase):
    sample = "--items userfs --weights 100 --files 20 --archive-mib 8 --image-mib 1"

    def setUp(self):
        super().setUp()
        self.cover_zcat(STUCK_ZCAT)
        self.point = str(self.update / "mnt")

    def start_unpacking(self):
        host = self.start()
        for line in host.stdout:
            if json.loads(line).get("percent", 0) > 0:
                break
        self.assertIn(self.point, mounts())
        return host

    def take_slow_zcat(self):
        self.uncover_zcat()
        self.cover_zcat(SLOW_ZCAT)

    def tools_of(self, host):
        """The process ids of the host's zcat and tar."""
        worker = children(host.pid)[0]
        tools = {}

        def are_there():  # tar has its program some time after zcat's first bytes
            for process in children(worker):
                command = pathlib.Path(f"/proc/{process}/cmdline").read_bytes().decode()
                tools.update({name: int(process) for name in ("zcat", "tar")
                              if f"{name}\0" in command})
            return len(tools) == 2

        self.wait_for(are_there, "the tools")
        return tools

    def test_of_the_whole_host_is_refused_and_cleaned_up_before_the_next_install(self):
        self.kill_both(self.start_unpacking())
        self.assert_refused_and_cleaned(self.point)
        self.uncover_zcat()
        self.assertEqual(SUCCESS, self.install(), self.errors)
        self.assert_unit_is_tidy()

    def test_of_the_working_process_is_cleaned_up_by_the_front(self):
        host = self.start_unpacking()
        os.kill(int(children(host.pid)[0]), signal.SIGKILL)
        _, errors = host.communicate(timeout=TIME_LIMIT)
        self.assertEqual(INSTALL_FAILED, host.returncode, errors)
        self.assertIn("left behind: process ", errors)
        self.assertIn(f"left behind: mount {self.point} (/dev/mmcblk0p1): unmounted", errors)
        self.assert_unit_is_tidy()

    def test_of_the_front_is_cleaned_up_by_the_working_process(self):
        self.take_slow_zcat()  # a module that waits for a stuck one hears of nothing
        host = self.start_unpacking()
        host.kill()
        _, errors = host.communicate(timeout=TIME_LIMIT)  # until the worker has closed it, too
        self.assertIn(f"left behind: mount {self.point} (/dev/mmcblk0p1): unmounted", errors)
        self.wait_for(lambda: not os.listdir(os.environ["FEATUREHOST_RUN_DIR"]), "the last step")
        self.assert_unit_is_tidy()

    def test_of_a_tool_leaves_nothing(self):
        self.take_slow_zcat()
        # Of a killed zcat the module sees either its end or the end of its output first; the latter
        # counts as the end of the archive.
        for tool, codes in (("zcat", (SUCCESS, INSTALL_FAILED)), ("tar", (INSTALL_FAILED,))):
            with self.subTest(tool):
                host = self.start_unpacking()
                os.kill(self.tools_of(host)[tool], signal.SIGKILL)
                _, errors = host.communicate(timeout=TIME_LIMIT)
                self.assertIn(host.returncode, codes, errors)
                self.assert_unit_is_tidy()


class KilledDuringTheEndOfLineSettings(KilledUpdateTestCase):
    sample = "--items eolsettings --weights 100 --files 1 --archive-mib 1 --image-mib 1"

    def test_of_the_whole_host_is_refused_and_cleaned_up_before_the_next_install(self):
        running = self.folder / "running"
        dd = self.script("dd", f"touch {running}; exec sleep 600")
        self.addCleanup(lambda: running.unlink(missing_ok=True))
        host = self.start()
        self.wait_for(running.exists, "dd")
        self.kill_both(host)
        self.assert_refused_and_cleaned(EOL_MOUNT_POINT)
        self.assertIn(f"folder {EOL_MOUNT_POINT}: removed", self.output)
        dd.unlink()
        self.assertEqual(SUCCESS, self.install(), self.errors)
        self.assert_unit_is_tidy()


class FileSystemInAFile(KilledUpdateTestCase):
    sample = "--items eolsettings --weights 100 --files 1 --archive-mib 1 --image-mib 1 --eol "

    def setUp(self):
        # Without a partition of its own, the file system lies in a file, on a loop device.
        self.image = pathlib.Path(os.environ["SANDBOX_DIR"]) / "eol.img"
        self.sample = type(self).sample + str(self.image)
        super().setUp()
        shell(f"truncate -s 4M {self.image} && mkfs.ext2 -q -F {self.image}")
        self.addCleanup(self.image.unlink)
        self.addCleanup(self.detach_all)

    def attached(self):
        # Other sandboxes come and go meanwhile, with loop devices of their own.
        return [loop for loop in loop_devices() if loop[1] == str(self.image)]

    def detach_all(self):
        for name, _ in self.attached():
            shell(f"losetup --detach /dev/{name}")

    def attach_for_good(self):
        """A mount that does not tell the kernel to let go of the loop device after the unmount."""
        self.script("mount", f"""
loop=$(losetup --find --show {self.image}) || exit 1
for last; do :; done
exec /bin/mount "$loop" "$last"
""")

    def assert_no_loop_device_is_left(self):
        self.assertEqual([], self.attached())
        self.assert_unit_is_tidy()

    def test_success_leaves_no_loop_device(self):
        self.assertEqual(SUCCESS, self.install(), self.errors)
        self.assertNotIn("left behind", self.errors)
        self.assert_no_loop_device_is_left()

    def test_failure_leaves_no_loop_device(self):
        self.script("dd", "exit 5")
        self.assertEqual(INSTALL_FAILED, self.install(), self.errors)
        self.assertIn(f"left behind: mount {EOL_MOUNT_POINT} (/dev/loop", self.errors)
        self.assertRegex(self.errors, rf"left behind: loop device /dev/loop\d+ \({self.image}\): "
                         "let go with its mount")
        self.assert_no_loop_device_is_left()

    def test_loop_device_that_stays_after_the_unmount_is_detached(self):
        self.attach_for_good()
        for dd, code in (("exit 5", INSTALL_FAILED), ('exec /bin/dd "$@"', SUCCESS)):
            with self.subTest(code):
                self.script("dd", dd)
                self.assertEqual(code, self.install(), self.errors)
                self.assertRegex(
                    self.errors,
                    rf"left behind: loop device /dev/loop\d+ \({self.image}\): detached")
                self.assert_no_loop_device_is_left()

    def test_loop_device_that_was_there_before_stays(self):
        shell(f"losetup --find {self.image}")
        before = self.attached()
        self.assertEqual(1, len(before))
        self.script("dd", "exit 5")
        self.install()
        self.assertEqual(before, self.attached())
        self.assert_unit_is_tidy()

    def test_loop_device_that_was_never_mounted_is_detached(self):
        self.script("mount", f"losetup --find {self.image}; exit 1")
        self.assertEqual(INSTALL_FAILED, self.install(), self.errors)
        self.assertRegex(self.errors,
                         rf"left behind: loop device /dev/loop\d+ \({self.image}\): detached")
        self.assert_no_loop_device_is_left()

    def test_loop_device_with_a_file_of_the_same_name_elsewhere_stays(self):
        # Attached meanwhile in another mount namespace, where the name is that of another file.
        other = self.folder / "other"
        other.mkdir()
        self.addCleanup(shutil.rmtree, other)
        shutil.copy(self.image, other / "file")
        self.script("mount", f"touch {other}/go; until [ -e {other}/done ]; do sleep 0.02; done; "
                    "exit 1")
        elsewhere = subprocess.Popen(["unshare", "--mount", "sh", "-c", f"""
            mount --bind {other}/file {self.image} && until [ -e {other}/go ]; do sleep 0.02; done
            loop=$(losetup --find --show {self.image}); touch {other}/done
            read -r line; losetup --detach "$loop" """], stdin=subprocess.PIPE)
        try:
            self.assertEqual(INSTALL_FAILED, self.install(), self.errors)
            self.assertEqual(1, len(self.attached()))
            self.assertNotIn("loop device", self.errors)
        finally:
            elsewhere.communicate(timeout=TIME_LIMIT)
        self.assert_no_loop_device_is_left()

    def test_loop_device_of_a_killed_run_is_found_and_detached(self):
        self.attach_for_good()
        running = self.folder / "running"
        self.script("dd", f"touch {running}; exec sleep 600")
        self.addCleanup(lambda: running.unlink(missing_ok=True))
        host = self.start()
        self.wait_for(running.exists, "dd")
        self.kill_both(host)
        self.assertEqual(1, len(self.attached()))
        self.assert_refused_and_cleaned(EOL_MOUNT_POINT)
        self.assertRegex(self.output, rf"(?m)^loop device /dev/loop\d+ \({self.image}\): detached$")
        self.assert_no_loop_device_is_left()


if __name__ == "__main__":
    if not os.environ.get("SANDBOX"):
        print("skipped: not run by scripts/sandbox")
        sys.exit(77)
    unittest.main(verbosity=2)
