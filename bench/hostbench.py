"""What the benchmarks of featurehost share: their options, the sandbox, featurehost's own cost."""

import argparse
import os
import subprocess
import sys
import threading
from pathlib import Path

PROJECT = Path(__file__).resolve().parent.parent
SAMPLE_SECONDS = 0.02


def parser(doc, mib):
    """A parser with the options that every benchmark has; doc is the benchmark's own docstring."""
    title, _, rest = doc.partition("\n\n")
    result = argparse.ArgumentParser(description=title, epilog=rest)
    result.add_argument("--rounds", type=int, default=5,
                        help="runs of each contender (default: %(default)s)")
    result.add_argument("--mib", type=int, default=mib,
                        help="size of the unpacked content in MiB (default: %(default)s)")
    result.add_argument("--bin", type=Path, default=PROJECT / "build/release/bin",
                        help="folder of featurehost and the module (default: build/release/bin, "
                             "which is built when it is missing)")
    return result


def run_in_sandbox(options, sandbox_options, bench):
    """Call bench(options) in scripts/sandbox, by starting this program there once more."""
    if "SANDBOX" in os.environ:
        options.bin = options.bin.resolve()
        bench(options)
        return
    if not (options.bin / "featurehost").exists():
        subprocess.run([PROJECT / "scripts/build", "release"], check=True)
    os.execv(PROJECT / "scripts/sandbox",
             ["scripts/sandbox", *sandbox_options, "--", str(Path(sys.argv[0]).resolve()),
              *sys.argv[1:]])


def shell(command):
    subprocess.run(command, shell=True, check=True, executable="/bin/bash")


class OwnCost:
    """Processor time and memory of a featurehost, without the tools that it runs.

    Its work is done by a child of its own, which counts. The figures are read in short intervals,
    because they are gone with the process.
    """

    def __init__(self, pid):
        self.peak_kib = 0
        self._seconds = {}
        self._pid = pid
        self._ended = threading.Event()
        self._thread = threading.Thread(target=self._sample, daemon=True)
        self._thread.start()

    def stop(self):
        """End the reading; the processor time in seconds."""
        self._ended.set()
        self._thread.join()
        return sum(self._seconds.values())

    def _sample(self):
        while not self._ended.wait(SAMPLE_SECONDS):
            for pid in (self._pid, *self._children()):
                self._read(pid)

    def _children(self):
        try:
            return Path(f"/proc/{self._pid}/task/{self._pid}/children").read_text().split()
        except OSError:
            return []

    def _read(self, pid):
        try:
            if Path(f"/proc/{pid}/comm").read_text().strip() != "featurehost":
                return
            nanoseconds = int(Path(f"/proc/{pid}/schedstat").read_text().split()[0])
            self._seconds[pid] = nanoseconds / 1e9
            for line in Path(f"/proc/{pid}/status").read_text().splitlines():
                if line.startswith("VmHWM:"):
                    self.peak_kib = max(self.peak_kib, int(line.split()[1]))
        except OSError:
            pass


def install(options, config):
    """Run `featurehost install`; what it cost, for sidebyside."""
    before = os.times()
    process = subprocess.Popen([options.bin / "featurehost", "--quiet", "install", config])
    cost = OwnCost(process.pid)
    if process.wait() != 0:
        sys.exit("featurehost failed")
    own = cost.stop()
    after = os.times()
    total = (after.children_user - before.children_user +
             after.children_system - before.children_system)
    return {"own processor time, % of the wall time": 100 * own / (after.elapsed - before.elapsed),
            "% of all processor time": 100 * own / total,
            "own peak memory, MiB": cost.peak_kib / 1024}
