#!/usr/bin/env python3
"""featurehost lint, and the checks before an install, as a user sees them. Without devices; what
needs them is in tests/lifecycle/lint.py. Environment and exit status as for end_to_end.py."""

import gzip
import os
import signal

import end_to_end
from end_to_end import ABORTED, INSTALL_FAILED, SUCCESS, TIME_LIMIT, USAGE, HostTestCase, ignored_children

LINT_ERRORS = 1


class LintTools:
    """What the tests below share."""
    lint = True

    def image(self, content=b"image" * 1000, compressed=None, **more):
        """An update with an image check alone: it needs neither root nor devices."""
        source = self.write("rootfs.img.gz",
                            gzip.compress(content) if compressed is None else compressed)
        self.target = self.write("device", content)
        return self.configuration({
            "updatelist": "checkrootfs", "updateprogresslist": "100",
            "rootfssource": str(source), "rootfstarget": str(self.target),
            "rootfstargetsize": len(content), **more})

    def kinds(self, *arguments):
        result = self.run_host("lint", "--json", *arguments)
        return [finding["kind"] for finding in result.events()[:-1]]

    def stock(self):
        return {path: (path.stat().st_mtime_ns, path.read_bytes())
                for path in self.folder.rglob("*") if path.is_file()}

    run_on_terminal = end_to_end.Terminal.run_on_terminal
    frames = end_to_end.Terminal.frames


class Lint(LintTools, HostTestCase):
    """Of regular files as targets there is always a warning."""

    def test_findings_are_lines_and_a_count(self):
        result = self.run_host("lint", self.factory_data(factorydatasize="4k"))
        self.assertEqual(LINT_ERRORS, result.code, result)
        self.assertEqual("", result.errors)
        error, warning, count = result.lines
        self.assertTrue(error.startswith("error number-unparsable: feature 'maincpu', item "
                                         "'factorydata', factorydatasize = \"4k\": "), error)
        self.assertIn(". Instead: ", error)
        self.assertTrue(warning.startswith("warning target-not-a-device: "), warning)
        self.assertEqual("maincpu: 1 error, 1 warning", count)

    def test_warnings_count_when_strict(self):
        path = self.factory_data()
        self.assertEqual(SUCCESS, self.run_host("lint", path).code)
        self.assertEqual(LINT_ERRORS, self.run_host("lint", "--strict", path).code)
        empty = self.configuration({"updatelist": "", "updateprogresslist": ""})
        self.assertEqual(LINT_ERRORS, self.run_host("lint", "--strict", empty).code)

    def test_quiet_shows_errors_alone(self):
        result = self.run_host("lint", "--quiet", self.factory_data())
        self.assertEqual((SUCCESS, "", ""), (result.code, result.output, result.errors))
        result = self.run_host("lint", "--quiet", self.factory_data(factorydatasize=0))
        self.assertEqual(LINT_ERRORS, result.code)
        self.assertEqual(1, len(result.lines), result)

    def test_json_has_an_object_for_each_finding_and_a_summary(self):
        result = self.run_host("lint", "--json", self.factory_data(factorydataoffset=-1))
        self.assertEqual(LINT_ERRORS, result.code, result)
        error, warning, summary = result.events()
        self.assertEqual(["feature", "item", "property", "value", "severity", "kind", "why",
                          "instead"], list(error))
        self.assertEqual(["maincpu", "factorydata", "factorydataoffset", "-1", "error",
                          "number-negative"], list(error.values())[:6])
        self.assertEqual(("warning", "target-not-a-device"), (warning["severity"], warning["kind"]))
        self.assertEqual({"summary": "lint", "feature": "maincpu", "errors": 1, "warnings": 1,
                          "deep": False}, summary)

    def test_configuration_that_cannot_be_read(self):
        self.assert_refused(self.run_host("lint", "missing.toml"), USAGE, "missing.toml")
        self.assert_refused(self.run_host("lint"), USAGE, "CONFIG")

    def test_block_size_that_dd_refuses_is_found_before_the_install_fails_with_it(self):
        source = self.write("rootfs.img.gz", gzip.compress(b"image" * 1000))
        target = self.write("device", b"")
        for text in ("0", "0k", "-1", "99999999999G", "1000000G"):
            path = self.configuration({
                "updatelist": "rootfs", "updateprogresslist": "100",
                "rootfssource": str(source), "rootfstarget": str(target), "rootfschecksum": "",
                "rootfstargetsize": 5000, "rootfsblocksize": text})
            self.assertIn("blocksize-refused", self.kinds(path), text)
            result = self.run_host("install", "--no-lint", path)
            self.assertEqual(INSTALL_FAILED, result.code, result)
            self.assertEqual(b"", target.read_bytes())

    def test_tools_are_tried_although_the_caller_ignores_its_children(self):
        # Left like that, nobody would hear how the trial ended.
        self.script("dd", "exit 1")
        path = self.image(updatelist="rootfs", rootfschecksum="", rootfsblocksize="64k")
        for command in ("lint", "install"):
            result = self.run_host(command, path, preexec_fn=ignored_children)
            self.assertIn("error blocksize-refused", result.output + result.errors)

    def test_tools_are_looked_for_on_the_path(self):
        self.environment["PATH"] = str(self.folder)
        self.assertIn("tool-missing", self.kinds(self.factory_data()))

    def test_nothing_is_written(self):
        path = self.image()
        before = self.stock()
        self.assertEqual(SUCCESS, self.run_host("lint", "--deep", path).code)
        self.assertEqual(before, self.stock())

    def test_damaged_image_is_found_by_looking_deep(self):
        whole = gzip.compress(b"image" * 1000)
        for damaged in (whole[:-9], whole[:-8] + b"\0\0\0\0" + whole[-4:]):
            path = self.image(compressed=damaged)
            self.assertNotIn("gzip-damaged", self.kinds(path))
            self.assertIn("gzip-damaged", self.kinds("--deep", path))

    def test_check_of_an_image_of_several_members_is_not_refused(self):
        path = self.image(compressed=gzip.compress(b"image" * 999) + gzip.compress(b"image"))
        self.assertEqual(["check-without-image", "targetsize-differs", "target-not-a-device"],
                         self.kinds(path))
        self.assertEqual(["check-without-image", "target-not-a-device"], self.kinds("--deep", path))

    def test_no_terminal_no_bar(self):
        result = self.run_host("lint", "--deep", self.image())
        self.assertEqual(SUCCESS, result.code, result)
        self.assertNotIn("\x1b", result.output)
        self.assertNotIn("%", result.output)


class LintBeforeInstall(LintTools, HostTestCase):
    def test_error_refuses_before_anything_is_started(self):
        self.script("dd", f"touch {self.folder}/called")
        path = self.factory_data(factorydatasize="4k")
        result = self.run_host("install", path, "--module", "missing.so")
        self.assertEqual((USAGE, ""), (result.code, result.output), result)
        error, warning, last = result.errors.splitlines()
        self.assertTrue(error.startswith("featurehost: error number-unparsable: "), error)
        self.assertTrue(warning.startswith("featurehost: warning "), warning)
        self.assertTrue(last.startswith("featurehost: the update cannot go well (1 error, 1 warning"
                                        "), nothing was started; --no-lint "), last)
        self.assertFalse((self.folder / "called").exists())

    def test_install_without_lint_goes_on(self):
        result = self.run_host("install", "--no-lint", self.factory_data(factorydatasize="4k"))
        self.assertEqual(SUCCESS, result.code, result)
        self.assertEqual(4, self.target.stat().st_size)
        self.assertNotIn("number-unparsable", result.errors)

    def test_warnings_are_shown_and_the_install_goes_on(self):
        result = self.run_host("install", self.factory_data(), "--json")
        self.assertEqual(SUCCESS, result.code, result)
        self.assertIn("featurehost: warning target-not-a-device: ", result.errors)
        self.assertEqual([200, 201, 202, 203, 205, 204], [e["code"] for e in result.events()])
        self.assertEqual(100, self.target.stat().st_size)

    def test_names_that_the_shell_leaves_alone_are_installed(self):
        source = self.write("#fac~tory#.bin~", os.urandom(500))
        result = self.run_host("install", self.factory_data(
            offset=7, size=400, factorydatasource=str(source),
            factorydatatarget=str(self.folder / "#device~")))
        self.assertEqual(SUCCESS, result.code, result)
        self.assertEqual(source.read_bytes()[7:407], (self.folder / "#device~").read_bytes())

    def test_quiet_shows_no_warnings(self):
        self.script("dd", "exit 0")
        result = self.run_host("install", "--quiet", self.factory_data())
        self.assertEqual((SUCCESS, "", ""), (result.code, result.output, result.errors))

    def test_prepare_is_not_checked(self):
        result = self.run_host("prepare", self.factory_data(factorydatasize="4k"))
        self.assertEqual((SUCCESS, ""), (result.code, result.errors), result)


class LintDeep(LintTools, HostTestCase):
    def long_image(self):
        """Takes minutes to unpack."""
        member = gzip.compress(bytes(1 << 24))
        return self.image(compressed=member * 4000)

    def test_signals_end_it(self):
        path = self.long_image()
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            process = self.start("lint", "--deep", path)
            self.wait_for(lambda: reads(process.pid, "rootfs.img.gz"), "the begin of the work")
            process.send_signal(number)
            output, errors = process.communicate(timeout=TIME_LIMIT)
            self.assertEqual((ABORTED, b""), (process.returncode, output), errors)
            self.assertEqual(b"featurehost: stopped; not everything has been checked\n", errors)

    def test_bar_is_on_a_terminal_and_goes_with_ctrl_c(self):
        result = self.run_on_terminal("lint", "--deep", self.long_image(), keys=b"\x03",
                                      when=lambda screen: b"elapsed" in screen)
        self.assertEqual(ABORTED, result.code, result)
        frames = self.frames(result)
        self.assertRegex(frames[0], r"^checkrootfs \[\.{30}\]   0 %  \d:\d\d elapsed")
        self.assertEqual("featurehost: stopped; not everything has been checked",
                         frames[-1].replace("^C", ""))

    def test_findings_follow_the_bar(self):
        result = self.run_on_terminal("lint", "--deep", self.image())
        self.assertEqual(SUCCESS, result.code, result)
        frames = self.frames(result)
        self.assertIn("elapsed", frames[0])
        self.assertRegex(frames[-1], "^maincpu: 0 errors, 2 warnings$")
        self.assertNotIn("elapsed", frames[-2])


def reads(process, name):
    """Whether a process has the file open."""
    folder = f"/proc/{process}/fd"
    try:
        links = [os.readlink(f"{folder}/{number}") for number in os.listdir(folder)]
    except OSError:
        return False
    return any(link.endswith("/" + name) for link in links)


if __name__ == "__main__":
    end_to_end.main()
