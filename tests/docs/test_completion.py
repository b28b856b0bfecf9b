#!/usr/bin/env python3
"""The completion for bash, run as bash runs it: with the words of the line in COMP_WORDS."""

import os
import re
import subprocess
import tempfile
import unittest
from pathlib import Path

SCRIPT = Path(__file__).resolve().parents[2] / "featurehost/completion/featurehost.bash"
HOST = os.environ["FEATUREHOST"]

COMMANDS = {"install", "prepare", "lint", "cleanup", "type"}
COMMON = {"--module", "--feature", "--log-level", "--log-file", "--json", "--quiet", "--help",
          "--version", "-h"}


def complete(*words, folder="/"):
    """What is offered for the last of the words behind "featurehost"."""
    run = subprocess.run(
        ["bash", "--norc", "-c", '. "$0"; COMP_WORDS=(featurehost "$@"); COMP_CWORD=$#;'
         ' _featurehost featurehost "${!#}" "${COMP_WORDS[COMP_CWORD - 1]}";'
         ' printf "%s\\n" "${COMPREPLY[@]}"', str(SCRIPT), *words],
        cwd=folder, check=True, capture_output=True, text=True, timeout=30)
    assert run.stderr == "", run.stderr
    return {line for line in run.stdout.splitlines() if line}


def help_of(*command):
    """The options and the commands that the built executable tells of."""
    text = subprocess.run([HOST, *command, "--help"], check=True, capture_output=True, text=True,
                          timeout=30).stdout
    options = set()
    for names in re.findall(r"^  (-[-\w,]+)", text, re.M):
        options.update(names.split(","))
    commands = re.findall(r"^  (\w+)  ", text.partition("Subcommands:")[2], re.M)
    return options, set(commands)


class CompletionTest(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory())
        for name in ("update.toml", "my update.toml", "notes.txt", "module.so"):
            Path(self.folder, name).write_text("[maincpu]\n[second]\n")
        Path(self.folder, "updates").mkdir()

    def in_folder(self, *words):
        return complete(*words, folder=self.folder)

    def test_it_is_registered_for_the_command(self):
        run = subprocess.run(["bash", "--norc", "-c", '. "$0"; complete -p featurehost',
                              str(SCRIPT)], check=True, capture_output=True, text=True, timeout=30)
        self.assertEqual("complete -F _featurehost featurehost", run.stdout.strip())

    def test_the_first_word_is_a_command(self):
        self.assertEqual(COMMANDS, complete(""))
        self.assertEqual({"install"}, complete("in"))
        self.assertEqual(COMMANDS, complete("--json", ""))
        self.assertEqual(COMMANDS, complete("--feature", "install", ""))
        self.assertEqual(COMMANDS, complete("--feature", "=", "install", ""))

    def test_options_are_those_of_the_command_and_the_common_ones(self):
        self.assertEqual(COMMON, complete("-"))
        self.assertEqual(COMMON, complete("type", "-"))
        self.assertEqual(COMMON | {"--no-lint"}, complete("install", "-"))
        self.assertEqual(COMMON | {"--deep", "--strict"}, complete("lint", "-"))
        self.assertEqual(COMMON | {"--dry-run"}, complete("cleanup", "-"))
        self.assertEqual({"--log-level", "--log-file"}, complete("prepare", "--log"))

    def test_a_configuration_is_a_toml_file_or_on_the_way_to_one(self):
        found = {"update.toml", "my update.toml", "updates"}
        for command in ("install", "prepare", "lint"):
            self.assertEqual(found, self.in_folder(command, ""))
        self.assertEqual({"update.toml", "updates"}, self.in_folder("install", "--json", "up"))

    def test_behind_the_configuration_there_are_options_only(self):
        self.assertEqual(set(), self.in_folder("install", "update.toml", ""))
        self.assertEqual({"--json"}, self.in_folder("install", "update.toml", "--js"))
        for command in ("type", "cleanup"):
            self.assertEqual(set(), self.in_folder(command, ""))

    def test_values_of_options(self):
        levels = {"error", "warning", "info", "interface"}
        self.assertEqual(levels, complete("--log-level", ""))
        self.assertEqual({"info", "interface"}, complete("--log-level", "=", "in"))
        self.assertEqual(levels, complete("--log-level", "="))
        for option in ("--module", "--log-file"):
            self.assertEqual({"module.so", "my update.toml"}, self.in_folder(option, "m"))
        self.assertEqual({"maincpu", "second"},
                         self.in_folder("install", "update.toml", "--feature", ""))
        self.assertEqual(set(), self.in_folder("install", "none.toml", "--feature", ""))

    def test_everything_that_help_tells_of_is_offered(self):
        options, commands = help_of()
        self.assertGreaterEqual(len(options), 9, "the help is not understood")
        self.assertGreaterEqual(len(commands), 3, "the help is not understood")
        self.assertLessEqual(options, complete("-"))
        self.assertLessEqual(commands, complete(""))
        for command in commands:
            with self.subTest(command):
                self.assertLessEqual(help_of(command)[0], complete(command, "-"))


if __name__ == "__main__":
    unittest.main()
