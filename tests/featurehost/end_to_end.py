#!/usr/bin/env python3
"""The featurehost executable, started as a user would, with the real module and with modules that
misbehave. Needs FEATUREHOST (the executable, the real module beside it), TEST_MODULES (the
folder of the modules), SYNC_SPY and LATE_INTERRUPT. Exit status 77: everything was skipped."""

import contextlib
import ctypes
import json
import os
import pathlib
import pty
import re
import select
import signal
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

HOST = os.environ["FEATUREHOST"]
MODULES = pathlib.Path(os.environ["TEST_MODULES"])
TIME_LIMIT = 120  # seconds; takes a few on a machine that is not busy

SUCCESS, INSTALL_FAILED, USAGE, PREPARE_FAILED, NOT_LOADED, ABORTED = 0, 1, 2, 3, 4, 130


def default_signals():
    """A test runner in the background may have them ignored, and children inherit that."""
    for number in (signal.SIGINT, signal.SIGHUP, signal.SIGPIPE):
        signal.signal(number, signal.SIG_DFL)


def ignored_children():
    """As a caller that does not want to hear of its children: the host inherits that."""
    default_signals()
    signal.signal(signal.SIGCHLD, signal.SIG_IGN)


class HostTestCase(unittest.TestCase):
    # Most of these are about what the host does with a module, whatever the configuration says.
    lint = False

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="featurehost-"))
        self.addCleanup(shutil.rmtree, self.folder)
        self.environment = dict(os.environ, FEATUREHOST_RUN_DIR=str(self.folder / "runs"))
        self.children_before = children()

    def tearDown(self):
        self.assertEqual(self.children_before, children(), "children before and after")

    def write(self, name, content):
        path = self.folder / name
        path.write_bytes(content if isinstance(content, bytes) else content.encode())
        return path

    def configuration(self, properties=None, feature="maincpu"):
        lines = [f"[{feature}]"]
        for key, value in (properties or {}).items():
            lines.append(f"{key} = {json.dumps(value)}")
        return self.write("update.toml", "\n".join(lines) + "\n")

    def factory_data(self, content=b"0123456789" * 20, offset=10, size=100, **more):
        """An update that restores factory data to a file; more gives or replaces properties."""
        source = self.write("factory.bin", content)
        self.target = self.folder / "device"
        self.target.write_bytes(b"")
        return self.configuration({
            "updatelist": "factorydata", "updateprogresslist": "100",
            "factorydatasource": str(source), "factorydatatarget": str(self.target),
            "factorydataoffset": offset, "factorydatasize": size, **more})

    def script(self, name, body):
        """A tool of the test's own, first on the path of the host."""
        tools = self.folder / "tools"
        tools.mkdir(exist_ok=True)
        tool = tools / name
        tool.write_text("#!/bin/sh\n" + body + "\n")
        tool.chmod(0o755)
        self.environment["PATH"] = f"{tools}:{os.environ['PATH']}"

    @staticmethod
    def until(path):
        """Shell text that waits for a file, for as long as a test waits at most."""
        return (f"tries=0; until [ -e {path} ] || [ $((tries += 1)) -gt {TIME_LIMIT * 20} ]; do "
                "sleep 0.05; done")

    def command(self, *arguments):
        words = [HOST, *map(str, arguments)]
        return words + ["--no-lint"] if "install" in words and not self.lint else words

    def start(self, *arguments, **options):
        settings = dict(stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                        env=self.environment, cwd=self.folder, preexec_fn=default_signals)
        settings.update(options)
        process = subprocess.Popen(self.command(*arguments), **settings)
        self.addCleanup(self.end, process)
        return process

    @staticmethod
    def end(process):
        if process.poll() is None:
            process.kill()
            process.wait()
        for stream in (process.stdout, process.stderr):
            if stream is not None:
                stream.close()

    def run_host(self, *arguments, **options):
        process = self.start(*arguments, **options)
        output, errors = process.communicate(timeout=TIME_LIMIT)
        return Result(process.returncode, (output or b"").decode(errors="replace"),
                      (errors or b"").decode(errors="replace"))

    def wait_for(self, condition, what):
        end = time.monotonic() + TIME_LIMIT
        while not condition():
            self.assertLess(time.monotonic(), end, f"waited in vain for {what}")
            time.sleep(0.01)

    def read_until(self, stream, text):
        """Take lines from a stream, up to one that holds the text."""
        line = ""
        while text not in line:
            line = stream.readline().decode()
            self.assertNotEqual("", line, f"waited in vain for: {text}")

    def assert_refused(self, result, code, *pieces):
        """One clear line on standard error, the exit code, and nothing started."""
        self.assertEqual(code, result.code, result)
        self.assertEqual("", result.output)
        lines = result.errors.splitlines()
        self.assertEqual(1, len(lines), lines)
        self.assertTrue(lines[0].startswith("featurehost: "), lines[0])
        for piece in pieces:
            self.assertIn(str(piece), lines[0])


class Result:
    def __init__(self, code, output, errors):
        self.code, self.output, self.errors = code, output, errors
        self.lines = output.splitlines()

    def __repr__(self):
        return f"exit code {self.code}\n-- output\n{self.output}\n-- errors\n{self.errors}"

    def events(self):
        return [json.loads(line) for line in self.lines]


def children(of=None):
    of = of or os.getpid()
    return pathlib.Path(f"/proc/{of}/task/{of}/children").read_text().split()


def module(name):
    return str(MODULES / f"{name}.so")


def state(process):
    """The letter of a process's state; empty when it is gone."""
    with contextlib.suppress(OSError):
        return pathlib.Path(f"/proc/{process}/stat").read_text().rsplit(")", 1)[1].split()[0]
    return ""


class Undying:
    """A process that SIGKILL does not end, as one that waits for a device: it is traced, and stops
    on its way out until it is let go."""
    SEIZE, CONTINUE, STOP_AT_EXIT = 0x4206, 7, 1 << 6
    WAIT_FOR_ALL = 0x40000000  # __WALL

    def __init__(self, process):
        self.process = process
        self.held = True
        if self.trace(self.SEIZE, self.STOP_AT_EXIT) != 0:
            raise unittest.SkipTest("no process may be traced here: "
                                    + os.strerror(ctypes.get_errno()))

    def trace(self, request, data):
        call = ctypes.CDLL(None, use_errno=True).ptrace
        call.restype = ctypes.c_long
        call.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]
        return call(request, self.process, None, data)

    def let_go(self):
        """Let it die; returns when it has."""
        if self.held:
            os.kill(self.process, signal.SIGKILL)
        while self.held:
            _, status = os.waitpid(self.process, self.WAIT_FOR_ALL)
            self.held = os.WIFSTOPPED(status)
            self.trace(self.CONTINUE, 0)


def processes_with(text):
    """Process ids whose command line holds a text."""
    found = []
    for entry in pathlib.Path("/proc").iterdir():
        with contextlib.suppress(OSError):
            if entry.name.isdigit() and text.encode() in (entry / "cmdline").read_bytes():
                found.append(int(entry.name))
    return found


class Install(HostTestCase):
    def test_factory_data_is_restored_with_the_real_dd(self):
        content = os.urandom(70000)
        result = self.run_host("install", self.factory_data(content, offset=1234, size=54321))
        self.assertEqual(SUCCESS, result.code, result)
        self.assertEqual(content[1234:1234 + 54321], self.target.read_bytes())
        self.assertEqual("preparing maincpu", result.lines[0])
        self.assertEqual("installing maincpu", result.lines[1])
        self.assertEqual("100 % factorydata", result.lines[-2])
        self.assertRegex(result.lines[-1], r"^installed maincpu in \d+:\d\d$")

    def test_file_systems_are_flushed_before_the_result_is_told(self):
        self.environment["LD_PRELOAD"] = os.environ["SYNC_SPY"]
        self.environment["ASAN_OPTIONS"] = "verify_asan_link_order=0"
        result = self.run_host("install", self.factory_data(), stderr=subprocess.STDOUT)
        self.assertEqual(SUCCESS, result.code, result)
        self.assertIn("sync()", result.lines)
        self.assertRegex(result.lines[-1], "^installed maincpu ")
        self.assertEqual(1, result.output.count("installed"), result)

    def test_prepare_writes_nothing(self):
        result = self.run_host("prepare", self.factory_data())
        self.assertEqual(SUCCESS, result.code, result)
        self.assertEqual(["preparing maincpu", "prepared maincpu"], result.lines)
        self.assertEqual(b"", self.target.read_bytes())

    def test_type_is_that_of_the_module(self):
        result = self.run_host("type")
        self.assertEqual((SUCCESS, "maincpuloader\n", ""),
                         (result.code, result.output, result.errors))
        result = self.run_host("type", "--module", module("Silent"))
        self.assertEqual((SUCCESS, "Silent\n"), (result.code, result.output))

    def test_failed_install(self):
        result = self.run_host("install", self.factory_data(
            factorydatasource=str(self.folder / "missing")))
        self.assertEqual(INSTALL_FAILED, result.code, result)
        self.assertIn("error SWLInfra SystemCmd SWLInfra/src/CmdHandler:", result.errors)
        self.assertIn("error MainCPULoader Install MainCPULoader/src/FactoryDataLoader:",
                      result.errors)
        self.assertTrue(result.errors.splitlines()[-1].startswith(
            "featurehost: the install of feature 'maincpu' failed"), result)
        self.assertNotIn("100 %", result.output)

    def test_children_are_waited_for_although_the_caller_ignores_its_own(self):
        result = self.run_host("install", self.factory_data(), preexec_fn=ignored_children)
        self.assertEqual(SUCCESS, result.code, result)
        self.assertEqual(100, self.target.stat().st_size)
        # Whose exit code is not known counts as done.
        self.script("dd", "exit 5")
        result = self.run_host("install", self.factory_data(), preexec_fn=ignored_children)
        self.assertEqual(INSTALL_FAILED, result.code, result)
        self.assertIn("exited, result=5", result.errors)

    def test_failed_prepare_is_not_installed(self):
        self.script("dd", f"touch {self.folder}/called")
        path = self.factory_data()
        path.write_text(re.sub("factorydatasize.*\n", "", path.read_text()))
        result = self.run_host("install", path)
        self.assertEqual(PREPARE_FAILED, result.code, result)
        self.assertIn("featurehost: feature 'maincpu' cannot be prepared", result.errors)
        self.assertFalse((self.folder / "called").exists())
        self.assertNotIn("installing", result.output)

    def test_feature_is_chosen_among_several(self):
        path = self.factory_data()
        path.write_text(path.read_text() + "[other]\nupdatelist = ''\nupdateprogresslist = ''\n")
        result = self.run_host("install", path, "--feature", "maincpu")
        self.assertEqual(SUCCESS, result.code, result)
        self.assertEqual(100, self.target.stat().st_size)
        result = self.run_host("install", path, "--feature", "other", "--json")
        self.assertEqual(SUCCESS, result.code, result)
        self.assertEqual({"other"}, {event["feature"] for event in result.events()})

    def test_feature_id_of_63_bytes(self):
        path = self.factory_data()
        path.write_text(path.read_text().replace("maincpu", "x" * 63))
        result = self.run_host("install", path, "--json")
        self.assertEqual(SUCCESS, result.code, result)
        self.assertEqual({"x" * 63}, {event["feature"] for event in result.events()})

    def test_module_found_by_a_relative_name(self):
        shutil.copy(module("Poster"), self.folder / "plain.so")
        result = self.run_host("install", self.configuration(), "--module", "plain.so")
        self.assertEqual(SUCCESS, result.code, result)

    def test_posts_from_inside_a_delivery_keep_their_order(self):
        result = self.run_host("install", self.configuration(), "--module", module("Poster"),
                               "--json")
        percents = [event["percent"] for event in result.events() if "percent" in event]
        self.assertEqual(list(range(101)), percents)

    def test_file_at_its_end_burns_no_core(self):
        watched = self.write("watched", b"x" * 500)
        result = self.run_host("install", self.configuration({"file": str(watched)}),
                               "--module", module("FileWatcher"))
        self.assertEqual(SUCCESS, result.code, result)


class Json(HostTestCase):
    def test_every_event_is_an_object(self):
        result = self.run_host("install", self.factory_data(), "--json")
        self.assertEqual(SUCCESS, result.code, result)
        events = result.events()
        self.assertEqual(["feature_created", "prepare", "prepare_result", "install",
                          "install_progress", "install_result"], [e["event"] for e in events])
        self.assertEqual([200, 201, 202, 203, 205, 204], [e["code"] for e in events])
        self.assertEqual({"maincpu"}, {e["feature"] for e in events})
        self.assertEqual([None, None, None, None, 100, None], [e.get("percent") for e in events])
        self.assertEqual([None, None, True, None, None, True], [e.get("success") for e in events])
        times = [e["elapsed_ms"] for e in events]
        self.assertEqual(sorted(times), times)

    def test_failure_is_an_event(self):
        result = self.run_host("install", self.configuration(
            {"updatelist": "factorydata", "updateprogresslist": "1"}), "--json")
        self.assertEqual(PREPARE_FAILED, result.code)
        self.assertEqual({"event": "prepare_result", "success": False},
                         {key: result.events()[-1][key] for key in ("event", "success")})

    def test_output_of_module_and_tools_does_not_get_in_between(self):
        result = self.run_host("install", self.configuration(), "--module", module("Printer"),
                               "--json")
        self.assertEqual(SUCCESS, result.code, result)
        self.assertEqual(200, result.events()[0]["code"])
        for text in ("printed by the module", "tool output", "tool error"):
            self.assertIn(text, result.errors)

    def test_what_was_left_is_an_object(self):
        result = self.run_host(
            "install", self.configuration({"command": "exec sleep 60", "end": "success"}),
            "--module", module("Leaver"), "--json")
        self.assertEqual(SUCCESS, result.code, result)
        left, last = result.events()[-2:]
        self.assertEqual("left_behind", left["event"])
        self.assertEqual("maincpu", left["feature"])
        self.assertEqual(["process"], [item["kind"] for item in left["items"]])
        self.assertTrue(left["items"][0]["cleaned"])
        self.assertEqual(204, last["code"])

    def test_reader_that_goes_away_does_not_end_the_update(self):
        path = self.factory_data()
        gone = self.folder / "gone"
        self.script("dd", f"{self.until(gone)}; {shutil.which('dd')} \"$@\"")
        process = self.start("install", path, "--json")
        process.stdout.readline()
        process.stdout.close()
        gone.touch()
        errors = process.stderr.read().decode()
        self.assertEqual(SUCCESS, process.wait(TIME_LIMIT), errors)
        self.assertEqual(100, self.target.stat().st_size)
        self.assertIn("no more results on standard output: Broken pipe", errors)


class BadInput(HostTestCase):
    def test_no_such_file(self):
        self.assert_refused(self.run_host("install", "missing.toml"), USAGE,
                            "missing.toml: ", "No such file or directory")

    def test_folder_instead_of_a_file(self):
        self.assert_refused(self.run_host("install", self.folder), USAGE, "is a folder")

    def test_toml_that_does_not_parse(self):
        path = self.write("bad.toml", "[maincpu]\nkey = = 1\n")
        self.assert_refused(self.run_host("install", path), USAGE, f"{path}:2: not valid TOML")

    def test_value_of_another_type(self):
        path = self.write("bad.toml", "[maincpu]\n\nrootfssize = 1.5\n")
        self.assert_refused(self.run_host("install", path), USAGE,
                            f"{path}:3: key 'rootfssize'", "floating-point")

    def test_missing_feature_table(self):
        path = self.factory_data()
        self.assert_refused(self.run_host("install", path, "--feature", "other"), USAGE,
                            f"{path}: has no table for feature 'other'", "maincpu")

    def test_no_table_at_all(self):
        path = self.write("empty.toml", "")
        self.assert_refused(self.run_host("install", path), USAGE, "holds no feature")

    def test_two_tables_without_a_choice(self):
        path = self.write("two.toml", "[a]\n[b]\n")
        self.assert_refused(self.run_host("install", path), USAGE, "--feature", "a, b")

    def test_feature_id_of_64_bytes(self):
        path = self.write("long.toml", f"[{'x' * 64}]\n")
        self.assert_refused(self.run_host("install", path), USAGE, f"{path}:1:", "64 bytes")
        self.assert_refused(self.run_host("install", path, "--feature", "x" * 64), USAGE,
                            "--feature", "64 bytes")

    def test_empty_feature_id(self):
        path = self.write("empty.toml", "['']\n")
        self.assert_refused(self.run_host("install", path), USAGE, f"{path}:1:", "empty")
        self.assert_refused(self.run_host("install", path, "--feature", ""), USAGE, "empty")

    def test_command_line(self):
        self.assert_refused(self.run_host(), USAGE, "install, prepare, lint, type or cleanup")
        self.assert_refused(self.run_host("install"), USAGE, "CONFIG", "--help")
        self.assert_refused(self.run_host("remove", "x"), USAGE, "remove")
        self.assert_refused(self.run_host("install", "x", "--fast"), USAGE, "--fast")
        self.assert_refused(self.run_host("install", "x", "--log-level", "loud"), USAGE, "loud")

    def test_log_file_that_cannot_be_written(self):
        self.assert_refused(
            self.run_host("install", self.factory_data(), "--log-file", self.folder), USAGE,
            "--log-file", self.folder)

    def test_module_that_does_not_exist(self):
        self.assert_refused(self.run_host("install", self.factory_data(), "--module", "none.so"),
                            NOT_LOADED, "none.so", "--module")
        self.assertEqual(b"", self.target.read_bytes())

    def test_library_that_does_not_load(self):
        library = self.write("text.so", "not a library\n")
        self.assert_refused(self.run_host("type", "--module", library), NOT_LOADED, library)
        self.assert_refused(self.run_host("install", self.factory_data(), "--module", library),
                            NOT_LOADED, library)

    def test_module_that_needs_what_the_host_has_not(self):
        self.assert_refused(
            self.run_host("install", self.factory_data(), "--module", module("Unresolved")),
            NOT_LOADED, "NotInTheHostContract")

    def test_module_without_the_entries(self):
        self.assert_refused(
            self.run_host("install", self.factory_data(), "--module", module("NoEntries")),
            NOT_LOADED, "NoEntries.so", "FeatureType")
        self.assert_refused(
            self.run_host("install", self.factory_data(), "--module", module("HalfEntries")),
            NOT_LOADED, "HalfEntries.so", "FeatureCreate2")

    def test_module_that_creates_nothing(self):
        self.assert_refused(
            self.run_host("install", self.factory_data(), "--module", module("Nothing")),
            NOT_LOADED, "Nothing.so", "created no feature")

    def test_module_that_does_not_announce_its_feature(self):
        self.assert_refused(
            self.run_host("install", self.factory_data(), "--module", module("Unannounced")),
            NOT_LOADED, "did not announce feature 'maincpu'")


class Logs(HostTestCase):
    def test_file_gets_the_lines_of_its_level(self):
        log = self.folder / "host.log"
        result = self.run_host("install", self.factory_data(), "--log-level", "interface",
                               "--log-file", log)
        self.assertEqual(SUCCESS, result.code, result)
        text = log.read_text()
        self.assertIn("interface MainCPULoader virtual void CMainCPULoader::OnEvent(const TEvent&) "
                      "MainCPULoader/src/MainCPULoader:", text)
        self.assertIn("info MainCPULoader Install MainCPULoader/src/FactoryDataLoader:", text)
        self.assertIn("always MainCPULoader HandleLoaderCompleted", text)
        for line in text.splitlines():
            self.assertRegex(line, r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (error|warning|info"
                                   r"|interface|always) \w+ ")
            self.assertIn(line, result.errors)

    def test_quiet_shows_errors_alone(self):
        log = self.folder / "host.log"
        self.script("dd", "exit 0")
        result = self.run_host("install", self.factory_data(), "--quiet", "--log-level", "info",
                               "--log-file", log)
        self.assertEqual((SUCCESS, "", ""), (result.code, result.output, result.errors))
        self.assertIn(" info MainCPULoader ", log.read_text())
        self.script("dd", "exit 5")
        result = self.run_host("install", self.factory_data(), "--quiet")
        self.assertEqual((INSTALL_FAILED, ""), (result.code, result.output))
        for line in result.errors.splitlines():
            self.assertRegex(line, r"^(featurehost: the install|.* error (MainCPU|SWL))")

    def test_full_disk_does_not_end_the_update(self):
        result = self.run_host("install", self.factory_data(), "--log-file", "/dev/full",
                               "--log-level", "info")
        self.assertEqual(SUCCESS, result.code, result)

    def test_tools_inherit_neither_descriptors_nor_signals(self):
        self.script("dd", "ls -l /proc/self/fd > fds; grep -E '^Sig(Blk|Ign)' /proc/self/status "
                          "> signals")
        result = self.run_host("install", self.factory_data(), "--log-file", "host.log", "--json")
        self.assertEqual(SUCCESS, result.code, result)
        numbers = re.findall(r" (\d+) -> (\S+)", (self.folder / "fds").read_text())
        strangers = [entry for entry in numbers if int(entry[0]) > 2
                     and not entry[1].startswith("/proc/")]
        self.assertEqual([], strangers)
        # Two signals of the C library's own, 32 and 33, are ignored in what it spawns.
        for line in (self.folder / "signals").read_text().splitlines():
            self.assertEqual(0, int(line.split()[1], 16) & 0x7fffffff, line)

    def test_help_and_version(self):
        result = self.run_host("--help")
        self.assertEqual(SUCCESS, result.code)
        for word in ("install", "prepare", "type", "--module", "--feature", "--log-level",
                     "--log-file", "--json", "--quiet", "--version", "130 aborted"):
            self.assertIn(word, result.output)
        result = self.run_host("--version")
        self.assertEqual(SUCCESS, result.code)
        self.assertRegex(result.output, r"^featurehost \d+\.\d+\.\d+\n$")

    def test_without_standard_streams(self):
        def close_all():
            default_signals()
            for descriptor in (0, 1, 2):
                with contextlib.suppress(OSError):
                    os.close(descriptor)
        result = self.run_host("install", self.factory_data(), "--log-file", "host.log",
                               "--log-level", "info", preexec_fn=close_all, close_fds=False,
                               stdin=None, stdout=None, stderr=None)
        self.assertEqual(SUCCESS, result.code)
        self.assertEqual(100, self.target.stat().st_size)
        self.assertIn("factory data restored", (self.folder / "host.log").read_text())


class Abort(HostTestCase):
    def start_silent(self, silent):
        """A run that never ends, once its install has begun (or its prepare)."""
        process = self.start("install", self.configuration({"silent": silent}), "--module",
                             module("Silent"), "--json")
        wanted = 201 if silent == "prepare" else 203
        while json.loads(process.stdout.readline())["code"] != wanted:
            pass
        return process

    def finish(self, process):
        output, errors = process.communicate(timeout=TIME_LIMIT)
        return Result(process.returncode, output.decode(), errors.decode())

    def test_interrupt_and_termination_wait_for_the_acknowledgement(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            for silent in ("install", "prepare"):
                process = self.start_silent(silent)
                process.send_signal(number)
                result = self.finish(process)
                self.assertEqual(ABORTED, result.code, result)
                self.assertEqual([206, 207], [event["code"] for event in result.events()])
                self.assertIn("featurehost: aborted feature 'maincpu'", result.errors)

    def test_second_signal_stops_waiting(self):
        process = self.start_silent("abort")
        process.send_signal(signal.SIGINT)
        self.assertEqual(206, json.loads(process.stdout.readline())["code"])
        with self.assertRaises(subprocess.TimeoutExpired):
            process.wait(0.3)
        process.send_signal(signal.SIGTERM)
        result = self.finish(process)
        self.assertEqual(ABORTED, result.code, result)
        self.assertEqual("", result.output)
        self.assertIn("without waiting", result.errors)

    def test_interrupt_while_a_tool_holds_the_host_is_served_after_it(self):
        path = self.factory_data()
        go = self.folder / "go"
        self.script("dd", f"touch {self.folder}/running; {self.until(go)}; "
                    f"{shutil.which('dd')} \"$@\"")
        process = self.start("install", path, "--json")
        self.wait_for((self.folder / "running").exists, "dd")
        process.send_signal(signal.SIGINT)
        self.read_until(process.stderr, "featurehost: stopping as soon as the module can")
        go.touch()
        result = self.finish(process)
        # The whole install ran inside one call, so its result was there before the abort.
        self.assertEqual(SUCCESS, result.code, result)
        self.assertEqual(100, self.target.stat().st_size, "dd ran to its end")
        self.assertEqual(204, result.events()[-1]["code"])

    def test_third_signal_ends_a_run_that_a_tool_holds(self):
        self.script("dd", f"touch {self.folder}/running; exec sleep 600")
        process = self.start("install", self.factory_data())
        self.wait_for((self.folder / "running").exists, "dd")
        for answer in ("stopping as soon as the module can", "not waiting for the module"):
            last = time.monotonic()
            process.send_signal(signal.SIGINT)
            self.read_until(process.stderr, answer)
        # Too soon after the one before it, and not counted; what comes while it cleans up neither.
        process.send_signal(signal.SIGINT)
        with contextlib.suppress(subprocess.TimeoutExpired):
            process.wait(1.2)
            # On a busy machine it may have come late enough to be counted.
            self.assertGreater(time.monotonic() - last, 1, "the third signal came too soon")
        for _ in range(3):
            process.send_signal(signal.SIGINT)
            time.sleep(0.05)
        result = self.finish(process)
        self.assertEqual(ABORTED, result.code, result)
        self.assertIn("featurehost: left behind: process", result.errors)
        self.assertIn("featurehost: ended by force; nothing is known to be installed",
                      result.errors)

    def test_run_that_does_not_end_when_it_is_killed_is_left_and_told(self):
        marker = f"4{os.getpid()}"
        self.script("dd", f"exec sleep {marker}")
        update = self.factory_data()
        errors = self.folder / "errors"
        with open(errors, "w", encoding="utf-8") as stream:  # the run keeps it open
            process = self.start("install", update, stdout=stream, stderr=stream)
        self.addCleanup(lambda: [os.kill(tool, signal.SIGKILL)
                                 for tool in processes_with(f"sleep\0{marker}")])
        self.wait_for(lambda: processes_with(f"sleep\0{marker}"), "dd")
        worker = int(children(process.pid)[0])
        held = Undying(worker)
        self.addCleanup(held.let_go)

        for answer in ("stopping as soon as the module can", "not waiting for the module"):
            process.send_signal(signal.SIGINT)
            self.wait_for(lambda answer=answer: answer in errors.read_text(), answer)
        time.sleep(1.1)
        process.send_signal(signal.SIGINT)
        self.assertEqual(ABORTED, process.wait(TIME_LIMIT))
        self.assertNotIn(state(worker), ("", "Z"))
        lines = errors.read_text().splitlines()
        self.assertEqual(
            f"featurehost: process {worker} does not end, not even when killed, and nothing is "
            "known to be installed; once it has ended, run featurehost cleanup", lines[-1])
        left = [line for line in lines if line.startswith("featurehost: left behind: ")]
        self.assertRegex(left[0], rf"process {worker} \(.*\): does not end, not even when killed$")
        self.assertRegex("\n".join(left[1:]), rf"process \d+ \(sleep {marker}\): (ended|killed)")
        self.assertEqual([], processes_with(f"sleep\0{marker}"))

        # It may still write: the next install waits for it.
        self.assert_refused(self.run_host("install", update), USAGE,
                            f"process {worker} is installing feature 'maincpu'")
        held.let_go()
        result = self.run_host("cleanup")
        self.assertEqual((SUCCESS, ["nothing to clean up"]), (result.code, result.lines))
        self.assertEqual([], os.listdir(self.folder / "runs"))

    def test_front_whose_messages_nobody_reads_stays_in_front(self):
        self.script("dd", f"touch {self.folder}/running; exec sleep 600")
        process = self.start("install", self.factory_data())
        self.wait_for((self.folder / "running").exists, "dd")
        worker = int(children(process.pid)[0])
        process.stderr.close()
        process.send_signal(signal.SIGINT)
        with self.assertRaises(subprocess.TimeoutExpired):
            process.wait(0.5)
        end = time.monotonic() + TIME_LIMIT
        while process.poll() is None and time.monotonic() < end:
            process.send_signal(signal.SIGINT)
            time.sleep(0.5)
        self.assertEqual(ABORTED, process.wait(1))
        process.stdout.close()
        self.assertFalse(os.path.exists(f"/proc/{worker}"))

    def test_signal_to_both_processes_counts_once(self):
        process = self.start_silent("abort")
        worker = int(children(process.pid)[0])
        for number in (signal.SIGTERM, signal.SIGINT):
            os.kill(worker, number)
        process.send_signal(signal.SIGTERM)
        self.assertEqual(206, json.loads(process.stdout.readline())["code"])
        with self.assertRaises(subprocess.TimeoutExpired):
            process.wait(0.3)
        process.send_signal(signal.SIGTERM)
        self.assertEqual(ABORTED, self.finish(process).code)

    def test_signal_before_the_run_has_begun_is_not_lost(self):
        created = self.folder / "created"
        process = self.start("install", self.configuration({"created": str(created)}),
                             "--module", module("Slow"), "--json")
        self.wait_for(created.exists, "the creation")
        process.send_signal(signal.SIGINT)
        self.read_until(process.stderr, "stopping as soon as the module can")
        created.unlink()
        result = self.finish(process)
        self.assertEqual(ABORTED, result.code, result)
        self.assertNotIn(203, [event["code"] for event in result.events()])

    def test_signal_after_the_result_changes_nothing(self):
        # The clean-up comes after the result, and a child that does not listen makes it take its time.
        told = self.folder / "told"
        process = self.start("install", self.configuration(
            {"command": f"trap 'touch {told}' TERM; while :; do sleep 0.1; done",
             "end": "success"}), "--module", module("Leaver"), "--json")
        # Told before it has its trap, the child is gone, and the run with it.
        self.wait_for(lambda: told.exists() or process.poll() is not None, "the clean-up")
        process.send_signal(signal.SIGINT)
        result = self.finish(process)
        self.assertEqual(SUCCESS, result.code, result)
        self.assertEqual(204, result.events()[-1]["code"])

    def test_signal_at_the_very_end_changes_nothing(self):
        self.environment["LD_PRELOAD"] = os.environ["LATE_INTERRUPT"]
        self.environment["ASAN_OPTIONS"] = "verify_asan_link_order=0"
        result = self.run_host("install", self.factory_data())
        self.assertEqual(SUCCESS, result.code, result)

    def test_host_that_loses_its_front_aborts(self):
        process = self.start_silent("install")
        worker = int(children(process.pid)[0])
        process.kill()
        process.communicate(timeout=TIME_LIMIT)
        self.wait_for(lambda: state(worker) in ("Z", ""), "the end of the run")

    def test_ignored_interrupt_stays_ignored(self):
        def ignore():
            default_signals()
            signal.signal(signal.SIGINT, signal.SIG_IGN)
        path = self.factory_data()
        self.script("dd", f"touch {self.folder}/running; sleep 0.5")
        process = self.start("install", path, preexec_fn=ignore)
        self.wait_for((self.folder / "running").exists, "dd")
        process.send_signal(signal.SIGINT)
        result = self.finish(process)
        self.assertEqual(SUCCESS, result.code, result)
        self.assertNotIn("stopping", result.errors)


class Clones(HostTestCase):
    def test_clone_that_comes_back_ends_without_a_word(self):
        for how in ("return", "post", "log", "property", "subscribe", "file"):
            with self.subTest(how):
                made = self.folder / f"made-{how}"
                result = self.run_host(
                    "install", self.configuration({"clone": how, "folder": str(made)}),
                    "--module", module("Clone"), "--json")
                self.assertEqual(SUCCESS, result.code, result)
                codes = [event["code"] for event in result.events() if "code" in event]
                self.assertEqual([200, 201, 202, 203, 204], codes)
                for words in ("the clone lives", "written by the clone"):
                    self.assertNotIn(words, result.errors)
                self.assertFalse(made.exists())
                for line in result.errors.splitlines():
                    self.assertRegex(line, "^featurehost: left behind: process ")


class LeftBehind(HostTestCase):
    def run_leaver(self, *options, **properties):
        return self.run_host("install", self.configuration(properties), "--module",
                             module("Leaver"), *options)

    def left_lines(self, result):
        prefix = "featurehost: left behind: "
        return [line[len(prefix):] for line in result.errors.splitlines()
                if line.startswith(prefix)]

    def test_nothing_is_said_when_nothing_was_left(self):
        for end, code in (("success", SUCCESS), ("failure", INSTALL_FAILED)):
            result = self.run_leaver(end=end)
            self.assertEqual(code, result.code)
            self.assertEqual([], self.left_lines(result))

    def test_child_is_ended_whatever_the_outcome(self):
        marker = f"6{os.getpid()}"
        for end, code in (("success", SUCCESS), ("failure", INSTALL_FAILED),
                          ("crash", INSTALL_FAILED)):
            with self.subTest(end):
                result = self.run_leaver(command=f"exec sleep {marker}", end=end)
                self.assertEqual(code, result.code, result)
                self.assertEqual(1, len(self.left_lines(result)), result)
                self.assertRegex(self.left_lines(result)[0], r"^process \d+ \(.*\): (ended|killed)$")
                self.assertEqual([], processes_with(f"sleep\0{marker}"))

    def test_orphan_of_a_child_is_ended_too(self):
        marker = f"7{os.getpid()}"
        result = self.run_leaver(command=f"sleep {marker} & exit 0", end="success")
        self.assertEqual(SUCCESS, result.code, result)
        self.assertEqual([], processes_with(f"sleep\0{marker}"))

    def test_child_of_an_aborted_run_is_ended(self):
        marker = f"8{os.getpid()}"
        process = self.start("install", self.configuration(
            {"command": f"exec sleep {marker}", "end": "never"}), "--module", module("Leaver"),
            "--json")
        while json.loads(process.stdout.readline())["code"] != 205:
            pass
        process.send_signal(signal.SIGINT)
        output, errors = process.communicate(timeout=TIME_LIMIT)
        self.assertEqual(ABORTED, process.returncode, errors)
        self.assertIn(b"left behind: process ", errors)
        self.assertEqual([], processes_with(f"sleep\0{marker}"))

    def test_child_of_a_run_that_was_not_waited_for_is_ended(self):
        marker = f"9{os.getpid()}"
        process = self.start("install", self.configuration(
            {"command": f"exec sleep {marker}", "end": "never", "acknowledge": "no"}),
            "--module", module("Leaver"), "--json")
        while json.loads(process.stdout.readline())["code"] != 205:
            pass
        process.send_signal(signal.SIGINT)
        self.assertEqual(206, json.loads(process.stdout.readline())["code"])
        process.send_signal(signal.SIGINT)
        output, errors = process.communicate(timeout=TIME_LIMIT)
        self.assertEqual(ABORTED, process.returncode, errors)
        self.assertIn(b"without waiting", errors)
        self.assertIn(b"left behind: process ", errors)
        self.assertEqual([], processes_with(f"sleep\0{marker}"))

    def test_crash_of_the_module_is_told(self):
        result = self.run_leaver(end="crash")
        self.assertEqual(INSTALL_FAILED, result.code, result)
        self.assertIn("featurehost: the module brought the run down with signal 6", result.errors)
        self.assertNotIn("100 %", result.output)

    def test_subscription_that_outlives_the_feature_is_told(self):
        result = self.run_leaver(subscription="yes", end="success")
        self.assertEqual(SUCCESS, result.code, result)
        self.assertIn("the module left 1 subscriptions behind", result.errors)


class Killed(HostTestCase):
    """SIGKILL of the front, of the process that works, and of both."""

    def setUp(self):
        super().setUp()
        self.marker = f"5{os.getpid()}"
        self.runs = self.folder / "runs"

    def start_leaver(self, **properties):
        """A run that never ends, once its child is there."""
        process = self.start(
            "install",
            self.configuration({"command": f"exec sleep {self.marker}", "end": "never",
                                **properties}),
            "--module", module("Leaver"), "--json")
        while json.loads(process.stdout.readline())["code"] != 205:
            pass
        self.wait_for(self.left, "the child")
        self.addCleanup(self.end_left)
        return process, int(children(process.pid)[0])

    def left(self):
        return processes_with(f"sleep\0{self.marker}")

    def end_left(self):
        for process in self.left():
            os.kill(process, signal.SIGKILL)

    def kill_both(self, process, worker):
        """Stopped first, so that neither can do anything about the other's end."""
        for number in (process.pid, worker):
            os.kill(number, signal.SIGSTOP)
            self.wait_for(lambda number=number: state(number) == "T", "the stop")
        os.kill(process.pid, signal.SIGKILL)
        os.kill(worker, signal.SIGKILL)
        process.wait(TIME_LIMIT)
        self.wait_for(lambda: state(worker) in ("Z", ""), "the end of the run")

    def killed_run(self, **properties):
        self.kill_both(*self.start_leaver(**properties))
        self.assertEqual(1, len(self.left()))
        return self.left()[0]

    def notes(self):
        return list(self.runs.iterdir())

    def test_next_install_refuses_until_it_is_cleaned_up(self):
        left = self.killed_run()
        refused = self.run_host("install", self.factory_data())
        self.assert_refused(refused, USAGE, "an install of feature 'maincpu' was killed",
                            f"process {left} (sleep {self.marker})", "run featurehost cleanup")
        self.assertEqual(b"", self.target.read_bytes())
        self.assertEqual([left], self.left())

        result = self.run_host("cleanup")
        self.assertEqual(SUCCESS, result.code, result)
        self.assertRegex(result.output,
                         rf"(?m)^process {left} \(sleep {self.marker}\): (ended|killed)$")
        self.assertEqual([], self.left())
        self.assertEqual([], self.notes())

        result = self.run_host("cleanup")
        self.assertEqual((SUCCESS, ["nothing to clean up"]), (result.code, result.lines))
        self.assertEqual(SUCCESS, self.run_host("install", self.factory_data()).code)

    def test_prepare_is_not_refused(self):
        self.killed_run()
        self.assertEqual(SUCCESS, self.run_host("prepare", self.factory_data()).code)

    def test_clean_up_can_be_tried_without_doing_it(self):
        left = self.killed_run()
        result = self.run_host("cleanup", "--dry-run", "--json")
        self.assertEqual(1, result.code, result)
        self.assertEqual("maincpu", result.events()[0]["feature"])
        self.assertEqual(
            [{"kind": "process", "what": f"{left} (sleep {self.marker})", "cleaned": False,
              "done": "to be cleaned up"}], result.events()[0]["items"])
        self.assertEqual([left], self.left())

    def test_clean_up_tells_in_json(self):
        self.killed_run()
        result = self.run_host("cleanup", "--json", "--quiet")
        self.assertEqual(SUCCESS, result.code, result)
        self.assertEqual([True], [item["cleaned"] for item in result.events()[0]["items"]])
        self.assertEqual([], self.left())

    def test_process_that_does_not_listen_is_killed(self):
        marker = f"{self.marker}4"
        self.kill_both(*self.start_leaver(
            command=f"trap '' TERM; while :; do sleep {marker}; done"))
        result = self.run_host("cleanup")
        self.assertEqual(SUCCESS, result.code, result)
        self.assertIn(": killed", result.output)
        self.assertEqual([], self.left())

    def test_kill_of_the_working_process_alone_is_cleaned_up_by_the_front(self):
        process, worker = self.start_leaver()
        os.kill(worker, signal.SIGKILL)
        _, errors = process.communicate(timeout=TIME_LIMIT)
        self.assertEqual(INSTALL_FAILED, process.returncode, errors)
        self.assertIn(b"left behind: process ", errors)
        self.assertIn(b"signal 9", errors)
        self.assertEqual(([], []), (self.left(), self.notes()))

    def test_kill_of_the_front_alone_is_cleaned_up_by_the_working_process(self):
        process, worker = self.start_leaver()
        process.kill()
        _, errors = process.communicate(timeout=TIME_LIMIT)  # until the worker has closed it
        self.assertIn(b"left behind: process ", errors)
        self.wait_for(lambda: state(worker) in ("Z", ""), "the end of the run")
        self.assertEqual(([], []), (self.left(), self.notes()))

    def test_second_install_on_the_same_target_is_refused_while_the_first_runs(self):
        path = self.factory_data()
        process, _ = self.start_leaver(updatelist="a", updateprogresslist="1",
                                       atarget=str(self.target))
        (self.folder / "second").mkdir()
        second = self.write("second/update.toml", path.read_text())
        second.write_text('[maincpu]\nupdatelist = "b"\nupdateprogresslist = "1"\n'
                          f'btarget = "{self.target}"\n')
        self.assert_refused(self.run_host("install", second), USAGE,
                            f"process {process.pid} is installing feature 'maincpu'")
        second.write_text(second.read_text().replace("device", "elsewhere"))
        result = self.run_host("install", second, "--module", module("Leaver"))
        self.assertNotIn("is installing", result.errors)
        result = self.run_host("cleanup")
        self.assertEqual(SUCCESS, result.code, result)
        self.assertIn(f"process {process.pid} is installing feature 'maincpu'; left alone",
                      result.lines)
        self.assertEqual(1, len(self.left()))
        process.terminate()
        process.communicate(timeout=TIME_LIMIT)

    def run_in_other_processes(self, *arguments, proc=False):
        """Run the host in a process namespace of its own, with a /proc of its own or not."""
        words = ["unshare", "--pid", "--fork", *(["--mount-proc"] if proc else [])]
        if os.getuid() != 0:
            words[1:1] = ["--user", "--map-root-user"]
        if subprocess.run([*words, "true"], check=False, stderr=subprocess.DEVNULL).returncode != 0:
            self.skipTest("no process namespace of our own")
        result = subprocess.run([*words, *self.command(*arguments)], cwd=self.folder,
                                env=self.environment, stdin=subprocess.DEVNULL, check=False,
                                capture_output=True, text=True, timeout=TIME_LIMIT)
        return Result(result.returncode, result.stdout, result.stderr)

    def test_without_a_proc_of_its_own_it_says_that_it_cannot_judge(self):
        left = self.killed_run()
        update = self.factory_data()
        result = self.run_in_other_processes("cleanup", proc=True)
        self.assertEqual((SUCCESS, ["nothing to clean up"], ""),
                         (result.code, result.lines, result.errors))

        for options in ([], ["--dry-run"], ["--quiet"], ["--json"]):
            self.assert_refused(self.run_in_other_processes("cleanup", *options), 1,
                                "that are noted (1)", "/proc", "mount -t proc proc /proc")
        result = self.run_in_other_processes("lint", "--json", update)
        self.assertEqual(SUCCESS, result.code, result)
        self.assertIn(("runs-unknown", "warning", "/proc"), [
            (event.get("kind"), event.get("severity"), event.get("value"))
            for event in result.events()])
        result = self.run_in_other_processes("install", "--no-lint", update)
        self.assertEqual(SUCCESS, result.code, result)
        self.assertEqual(1, result.errors.count("featurehost: cannot tell"), result)
        self.assertIn("that are noted (1)", result.errors)
        result = self.run_in_other_processes("install", "--no-lint", "--quiet", update)
        self.assertEqual(SUCCESS, result.code, result)
        self.assertNotIn("featurehost: ", result.errors)

        self.assertEqual([left], self.left())
        self.assertEqual(SUCCESS, self.run_host("cleanup").code)
        self.assertEqual(([], []), (self.left(), self.notes()))
        result = self.run_in_other_processes("cleanup")
        self.assertEqual((SUCCESS, ["nothing to clean up"], ""),
                         (result.code, result.lines, result.errors))

    def test_without_a_proc_of_its_own_it_finds_its_own_children_only(self):
        # Its process has the number 2, and what /proc shows as 2 is the parent of kernel threads.
        update = self.configuration({"command": f"exec sleep {self.marker}", "end": "success"})
        result = self.run_in_other_processes("install", update, "--module", module("Leaver"))
        self.assertEqual(SUCCESS, result.code, result)
        left = [line for line in result.errors.splitlines() if "left behind" in line]
        self.assertEqual(1, len(left), result)
        self.assertRegex(left[0], r"process \d+ \(.*\): (ended|killed)$")

    def test_run_leaves_no_note(self):
        for end, code in (("success", SUCCESS), ("failure", INSTALL_FAILED),
                          ("crash", INSTALL_FAILED)):
            result = self.run_host("install", self.configuration({"end": end}), "--module",
                                   module("Leaver"))
            self.assertEqual(code, result.code, result)
            self.assertEqual([], self.notes())


class LeftMounts(HostTestCase):
    """Runs the host in a mount namespace of its own."""

    def setUp(self):
        if subprocess.run(["unshare", *self.namespace(), "true"], check=False,
                          stderr=subprocess.DEVNULL).returncode != 0:
            self.skipTest("no mount namespace of our own")
        super().setUp()
        self.point = self.folder / "point"
        self.point.mkdir()

    @staticmethod
    def namespace():
        return ["--mount"] if os.getuid() == 0 else ["--mount", "--map-root-user"]

    def run_apart(self, before="", **properties):
        """Run in the namespace, after a shell line; keeps what is mounted then."""
        self.configuration({"end": "success", **properties})
        self.environment["FEATUREHOST_RUN_DIR"] = "runs"  # reached also when /tmp is another one
        result = subprocess.run(
            ["unshare", *self.namespace(), "sh", "-c",
             before + '"$@"; code=$?; cat /proc/self/mountinfo > mounts; exit $code',
             "sh", *self.command("install", "update.toml", "--module", module("Leaver"))],
            cwd=self.folder, env=self.environment, capture_output=True, check=False,
            timeout=TIME_LIMIT, text=True)
        self.mounts = (self.folder / "mounts").read_text()
        return Result(result.returncode, result.stdout, result.stderr)

    def test_mount_at_a_mount_point_of_the_feature_is_unmounted(self):
        for end, code in (("success", SUCCESS), ("failure", INSTALL_FAILED),
                          ("crash", INSTALL_FAILED)):
            with self.subTest(end):
                result = self.run_apart(amountpoint=str(self.point), updatelist="a",
                                        updateprogresslist="1", end=end)
                self.assertEqual(code, result.code, result)
                self.assertIn(f"left behind: mount {self.point} (left): unmounted", result.errors)
                self.assertNotIn(str(self.point), self.mounts)

    def test_other_mount_is_only_told(self):
        result = self.run_apart(amountpoint=str(self.point), updatelist="b",
                                updateprogresslist="1")
        self.assertEqual(SUCCESS, result.code, result)
        self.assertIn(f"left behind: mount {self.point} (left): not at a mount point of this "
                      "feature; left as it is", result.errors)
        self.assertIn(str(self.point), self.mounts)

    def run_with_own_tmp(self, updatelist):
        (self.folder / "own").mkdir()
        return self.run_apart("mount --bind own /tmp; ", folder="yes", updatelist=updatelist,
                              updateprogresslist="1")

    @unittest.skipIf(HOST.startswith("/tmp/"), "the executable lies in /tmp")
    def test_folder_of_the_end_of_line_settings_is_removed(self):
        result = self.run_with_own_tmp("eolsettings")
        self.assertEqual(SUCCESS, result.code, result)
        self.assertIn("left behind: folder /tmp/eolmountpoint: removed", result.errors)
        self.assertEqual([], os.listdir(self.folder / "own"))

    @unittest.skipIf(HOST.startswith("/tmp/"), "the executable lies in /tmp")
    def test_folder_of_someone_elses_end_of_line_settings_stays(self):
        result = self.run_with_own_tmp("rootfs")
        self.assertEqual((SUCCESS, ""), (result.code, result.errors))
        self.assertEqual(["eolmountpoint"], os.listdir(self.folder / "own"))


class Terminal(HostTestCase):
    """The host on a pseudo-terminal, as its controlling terminal."""

    def run_on_terminal(self, *arguments, when=None, keys=b"", look=lambda screen: None):
        """Run and type the keys once the condition on the screen holds, whose text is the result's
        output. The screen is shown to look again and again."""
        process, terminal = pty.fork()
        if process == 0:
            default_signals()
            os.chdir(self.folder)
            os.execve(HOST, self.command(*arguments), self.environment)
        screen = b""
        typed = when is None
        end = time.monotonic() + TIME_LIMIT
        try:
            while time.monotonic() < end:
                if not typed and when(screen):
                    os.write(terminal, keys)
                    typed = True
                look(screen)
                if not select.select([terminal], [], [], 0.02)[0]:
                    continue
                try:
                    piece = os.read(terminal, 65536)
                except OSError:  # the last process has closed it
                    break
                if not piece:
                    break
                screen += piece
            else:
                os.kill(process, signal.SIGKILL)
                self.fail(f"did not end: {screen!r}")
        finally:
            os.close(terminal)
            _, status = os.waitpid(process, 0)
        return Result(os.waitstatus_to_exitcode(status), screen.decode(), "")

    def frames(self, result):
        """What stood on the screen's last line, one after another."""
        return [frame for frame in re.split(r"\r\x1b\[K|\r\n", result.output) if frame]

    def test_bar_shows_item_percentage_and_time_and_completion_with_the_result(self):
        result = self.run_on_terminal("install", self.factory_data())
        self.assertEqual(SUCCESS, result.code, result)
        frames = self.frames(result)
        self.assertEqual("preparing maincpu", frames[0])
        self.assertRegex(frames[1], r"^factorydata \[\.{30}\]   0 %  \d:\d\d elapsed$")
        self.assertRegex(frames[-2], r"^factorydata \[#{30}\] 100 %  \d+:\d\d elapsed$")
        self.assertRegex(frames[-1], r"^installed maincpu in \d+:\d\d$")
        self.assertEqual(1, result.output.count("100 %"))

    def test_lines_of_tools_and_log_stand_above_the_bar_in_order(self):
        result = self.run_on_terminal("install", self.configuration(), "--module",
                                      module("Printer"))
        self.assertEqual(SUCCESS, result.code, result)
        lines = [line.split("\x1b[K")[-1] for line in result.output.split("\r\n")]
        whole = [line for line in lines if line in
                 ("printed by the module", "tool output", "tool error")
                 or line.endswith("(an error of the module)")]
        self.assertEqual(["printed by the module", "tool output", "tool error"], whole[:3])
        self.assertEqual(4, len(whole), lines)

    def test_what_the_tools_printed_before_a_crash_is_shown(self):
        result = self.run_on_terminal("install", self.configuration(
            {"command": "echo last words", "end": "crash"}), "--module", module("Leaver"))
        self.assertEqual(INSTALL_FAILED, result.code, result)
        self.assertIn("signal 6", result.output)

    def test_failure_leaves_the_bar_and_tells(self):
        self.script("dd", "echo broken >&2; exit 3")
        result = self.run_on_terminal("install", self.factory_data())
        self.assertEqual(INSTALL_FAILED, result.code, result)
        self.assertIn("broken\r\n", result.output)
        self.assertNotIn("100 %", result.output)
        self.assertTrue(self.frames(result)[-1].startswith("featurehost: the install of feature"))

    def test_interrupt_from_the_keyboard_does_not_hit_the_tools(self):
        # A tool that Ctrl-C kills counts as done: the update would be reported as installed.
        path = self.factory_data()
        go = self.folder / "go"
        self.script("dd", f"touch {self.folder}/running; {self.until(go)}; "
                    f"{shutil.which('dd')} \"$@\"")
        result = self.run_on_terminal(
            "install", path, keys=b"\x03", when=lambda screen: (self.folder / "running").exists(),
            look=lambda screen: b"stopping as soon as" in screen and go.touch())
        self.assertEqual(SUCCESS, result.code, result)
        self.assertEqual(100, self.target.stat().st_size, "dd ran to its end")
        self.assertIn("the abort came too late", result.output)

    def test_interrupt_from_the_keyboard_aborts(self):
        result = self.run_on_terminal(
            "install", self.configuration({"silent": "install"}), "--module", module("Silent"),
            keys=b"\x03", when=lambda screen: b"elapsed" in screen)
        self.assertEqual(ABORTED, result.code, result)
        self.assertIn("featurehost: aborted feature 'maincpu'", result.output)

    def test_tool_that_asks_gets_no_answer_and_does_not_wait(self):
        self.script("dd", "read answer && exit 1; exit 0")
        result = self.run_on_terminal("install", self.factory_data())
        self.assertEqual(SUCCESS, result.code, result)


def main():
    program = unittest.main(verbosity=2, exit=False)
    if not program.result.wasSuccessful() or program.result.testsRun == 0:
        sys.exit(1)
    skipped = len(program.result.skipped)
    if skipped:
        print(f"{skipped} of {program.result.testsRun} tests were skipped")
    sys.exit(77 if skipped == program.result.testsRun else 0)


if __name__ == "__main__":
    main()
