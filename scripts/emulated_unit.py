"""An emulated 32-bit ARM unit with two cards, for scripts/unit and the tests on it."""

import os
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

PROJECT = Path(__file__).resolve().parent.parent
CACHE = Path(os.environ.get("UNIT_CACHE", PROJECT / "build" / "unit"))
BUILD = PROJECT / "build" / "arm32" / "bin"
TOOL_SETS = ("gnu", "busybox")
MIB = 1024 * 1024


class UnitError(Exception):
    """The unit could not be built or started, or ended without a result."""


class UnitTimeout(UnitError):
    """The unit was switched off because its time was over."""


def make_system():
    """Fetch and assemble kernel and start-up file system, unless that is done."""
    command = [str(PROJECT / "scripts" / "unit-packages"), "system"]
    if subprocess.run(command, check=False).returncode != 0:
        raise UnitError("the unit's system could not be made")
    return CACHE / "system"


def make_card(path, mebibytes):
    """An empty card. Cards have a power of two as their size."""
    if mebibytes < 1 or mebibytes & (mebibytes - 1):
        raise UnitError(f"a card of {mebibytes} MiB: the size has to be a power of two")
    with open(path, "wb") as card:
        card.truncate(mebibytes * MIB)
    return Path(path)


def programs():
    """What the unit gets of ours: the module and its host, cross-compiled."""
    found = [BUILD / "featurehost", BUILD / "libmaincpuloader.so"]
    missing = [str(path) for path in found if not path.exists()]
    if missing:
        raise UnitError("not built: " + ", ".join(missing) + " (scripts/build arm32)")
    return found


class Unit:
    """One run of the unit: boots, runs one job and switches itself off.

    A context manager: leaving it ends the emulator, whatever happened, and nothing but the
    emulator that this object started.
    """

    def __init__(self, job, cards, share, files=(), tools="gnu", memory=512, nice=0,
                 cached=False):
        """
        job     shell text; runs as root in the shared folder, with `files` on its path
        cards   up to two images, which become /dev/mmcblk0 and /dev/mmcblk1; None: no such card
        share   folder that the unit sees as /host
        files   programs to copy into the unit
        tools   "gnu" or "busybox": whose zcat, tar and dd the unit has
        memory  of the unit, in MiB
        cached  let the unit keep what it has read of the shared folder: dd reading single bytes
                is a thousand times faster, but changes from outside may not be seen any more, and
                a unit that writes more than its memory holds may freeze
        """
        if tools not in TOOL_SETS:
            raise UnitError(f"unknown tool set {tools}")
        if shutil.which("qemu-system-arm") is None:
            raise UnitError("qemu-system-arm is missing; scripts/install-deps --unit installs it")
        self._cards = (list(cards) + [None, None])[:2]
        self._share = Path(share).resolve()
        self._memory = memory
        self._nice = nice
        self._system = make_system()
        self._process = None
        self._folder = Path(tempfile.mkdtemp(prefix="maincpuloader-unit-"))
        try:
            self._prepare(job, files, tools, cached)
        except BaseException:
            self.close()
            raise

    def _prepare(self, job, files, tools, cached):
        (self._folder / "bin").mkdir()
        for path in files:
            shutil.copy(path, self._folder / "bin")
        (self._folder / "job").write_text(job)
        (self._folder / "settings").write_text(
            f"clock={int(time.time())}\ntools={tools}\ncache={'loose' if cached else 'none'}\n")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def command(self):
        present = "".join(str(number) for number, card in enumerate(self._cards) if card)
        machine = [
            "qemu-system-arm", "-M", "virt,highmem=off", "-cpu", "cortex-a15", "-smp", "2",
            "-m", str(self._memory), "-nodefaults", "-no-user-config", "-display", "none",
            "-no-reboot",
            "-chardev", "stdio,id=con,signal=off,mux=off", "-serial", "chardev:con",
            "-kernel", str(self._system / "kernel"), "-initrd", str(self._system / "root.cpio"),
            "-append", "console=ttyAMA0 quiet loglevel=3 panic=-1 cards=" + present,
        ]
        for number, card in enumerate(self._cards):
            machine += ["-device", f"sdhci-pci,id=h{number},addr=0x{4 + number}"]
            if card is None:
                continue  # an empty slot, so that the other card keeps its number
            machine += [
                "-drive", f"if=none,id=d{number},format=raw,file={card},cache=writeback",
                "-device", f"sd-card,bus=pcie.0/h{number}/sd-bus,drive=d{number}",
            ]
        for number, (tag, folder) in enumerate((("host", self._share), ("unit", self._folder))):
            machine += [
                "-fsdev", f"local,id=fs{number},path={folder},security_model=none",
                "-device", f"virtio-9p-pci,fsdev=fs{number},mount_tag={tag},addr=0x{6 + number}",
            ]
        return machine

    def start(self, stdin=subprocess.DEVNULL, stdout=None):
        """Switch the unit on. Its console goes to stdout, by default the caller's."""
        self._process = subprocess.Popen(
            self.command(), stdin=stdin, stdout=stdout,
            preexec_fn=(lambda: os.nice(self._nice)) if self._nice else None)
        return self._process

    def wait(self, timeout):
        """Wait until the unit has switched itself off.

        Returns the job's exit code, or None when the unit ended without one.
        """
        try:
            self._process.wait(timeout)
        except subprocess.TimeoutExpired:
            self.cut_power()
            raise UnitTimeout(f"the unit was switched off after {timeout} seconds") from None
        code = self._folder / "exit-code"
        if self._process.returncode != 0 or not code.exists():
            return None
        return int(code.read_text())

    def cut_power(self):
        """End the emulator at once; what the unit had not written yet is lost."""
        if self._process is not None and self._process.poll() is None:
            self._process.kill()
            self._process.wait()

    def close(self):
        self.cut_power()
        shutil.rmtree(self._folder, ignore_errors=True)


def run(job, cards, share, timeout, files=None, tools="gnu", memory=512, nice=0, cached=True):
    """Boot, run a job and wait for its end. Returns (exit code, what the console showed).

    With `cached` the shared folder must not change from outside meanwhile.
    """
    files = programs() if files is None else files
    with Unit(job, cards, share, files, tools, memory, nice, cached) as unit:
        process = unit.start(stdout=subprocess.PIPE)
        console = Collector(process.stdout)
        try:
            code = unit.wait(timeout)
        except UnitTimeout as error:
            raise UnitTimeout(f"{error}; its console:\n{console.text()}") from None
        if code is None:
            raise UnitError("the unit ended without a result; its console:\n" + console.text())
        return code, console.text()


class Collector:
    """Reads a stream to its end in the background."""

    def __init__(self, stream):
        self._stream = stream
        self._pieces = []
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        with self._stream:
            while piece := self._stream.read1(65536):
                self._pieces.append(piece)

    def so_far(self):
        return b"".join(self._pieces).decode(errors="replace")

    def text(self):
        self._thread.join(10)
        return self.so_far()


def end_on_signals():
    """Turn SIGTERM and SIGHUP into an orderly end, so that no emulator is left behind."""
    def stop(number, _frame):
        sys.exit(128 + number)
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, stop)


def quoted(words):
    return " ".join(shlex.quote(str(word)) for word in words)
