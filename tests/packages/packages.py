#!/usr/bin/env python3
"""Builds the Debian packages, unpacks them into a folder, and uses them from there as someone else
would: the host runs, and an external host and an external module are built and run. Needs SOURCES
(the project's folder) and VERSION (the project's). Touches nothing else, needs no network."""

import json
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

SOURCES = pathlib.Path(os.environ["SOURCES"])
VERSION = os.environ["VERSION"]
PACKAGES = ("maincpuloader", "featurehost", "featurehost-dev")


def run(*command, **options):
    result = subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False,
                            **options)
    if result.returncode != 0:
        raise AssertionError(f"{command} ended with {result.returncode}\n"
                             f"{result.stdout}\n{result.stderr}")
    return result.stdout


class Packages(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="packages-")
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        cls.root = cls.folder / "root"
        run(SOURCES / "scripts/package", "--output", cls.folder / "debs")
        cls.debs = {}
        for file in (cls.folder / "debs").glob("*.deb"):
            cls.debs[run("dpkg-deb", "--field", file, "Package").strip()] = file
            run("dpkg-deb", "-x", file, cls.root)
        cls.host = cls.root / "usr/bin/featurehost"
        # What an integrator sets to use an unpacked root.
        configs = next(cls.root.glob("usr/lib/*/pkgconfig"))
        cls.environment = {**os.environ, "PKG_CONFIG_PATH": str(configs)}
        cls.modules = pathlib.Path(
            run("pkg-config", "--variable=moduledir", "featurehost", env=cls.environment).strip())
        cls.examples = cls.root / "usr/share/doc/featurehost-dev/examples"

    def work_folder(self, example=None):
        folder = self.folder / self.id().rsplit(".", maxsplit=1)[-1]
        if example:
            shutil.copytree(self.examples / example, folder)
        else:
            folder.mkdir()
        return folder

    def control(self, package, field):
        return run("dpkg-deb", "--field", self.debs[package], field).strip()

    def external_host(self):
        build = self.folder / "external-host-build"
        if not build.exists():
            source = shutil.copytree(self.examples / "host", self.folder / "external-host")
            run("cmake", "-S", source, "-B", build, f"-DCMAKE_PREFIX_PATH={self.root}/usr")
            run("cmake", "--build", build)
        return build / "example-host"

    def external_module(self):
        folder = self.folder / "external-module"
        if not folder.exists():
            shutil.copytree(self.examples / "module", folder)
            run("make", "-C", folder, env=self.environment)
        return folder / "example.so"

    def test_there_are_three_of_the_projects_version(self):
        self.assertEqual(sorted(PACKAGES), sorted(self.debs))
        architecture = run("dpkg", "--print-architecture").strip()
        for package, file in self.debs.items():
            self.assertEqual(f"{package}_{VERSION}_{architecture}.deb", file.name)
            self.assertEqual(VERSION, self.control(package, "Version"))

    def test_they_depend_on_what_they_need(self):
        module = self.control("maincpuloader", "Depends")
        self.assertRegex(module, r"\blibc6 \(>= ")
        self.assertRegex(module, r"\blibstdc\+\+6 \(>= ")
        self.assertNotIn("libevent", module)
        host = self.control("featurehost", "Depends")
        self.assertRegex(host, r"\blibevent-core-2\.1-7\b")
        for package in (f"maincpuloader (= {VERSION})", "mount", "e2fsprogs", "dosfstools", "fdisk"):
            self.assertIn(package, host.split(", "))
        self.assertEqual("", self.control("featurehost-dev", "Depends"))

    def test_each_tells_its_origin_and_its_changes(self):
        for package in PACKAGES:
            folder = self.root / "usr/share/doc" / package
            self.assertIn("Copyright:", (folder / "copyright").read_text())
            changes = run("gzip", "-dc", folder / "changelog.gz")
            self.assertEqual((SOURCES / "CHANGELOG.md").read_text(), changes)

    def test_belong_to_root_and_can_be_read_by_everybody(self):
        for package, file in self.debs.items():
            for line in run("dpkg-deb", "--contents", file).splitlines():
                mode, owner = line.split()[:2]
                self.assertEqual("root/root", owner, f"{package}: {line}")
                self.assertRegex(mode, "^(drwxr-xr-x|-rwxr-xr-x|-rw-r--r--)$", f"{package}: {line}")

    def test_no_file_names_the_folder_it_was_built_in(self):
        for file in self.root.rglob("*"):
            if file.is_file():
                self.assertNotIn(str(SOURCES).encode(), file.read_bytes(), file)

    def test_module_tells_its_version_and_exports_two_names(self):
        module = self.modules / "libmaincpuloader.so"
        notes = run("readelf", "--notes", module)
        metadata = json.loads(re.search(r"Packaging Metadata: (.*)", notes)[1])
        self.assertEqual({"type": "deb", "name": "maincpuloader", "version": VERSION}, metadata)
        names = run("nm", "-D", "--defined-only", module).split()[2::3]
        self.assertEqual(["FeatureCreate2", "FeatureType"], sorted(names))

    def test_host_finds_the_installed_module(self):
        self.assertEqual("maincpuloader\n", run(self.host, "type", cwd="/"))

    def test_host_tells_its_version(self):
        self.assertEqual(f"featurehost {VERSION}\n", run(self.host, "--version"))

    def test_host_comes_with_its_manual_page_and_completion(self):
        page = run("gzip", "-dc", self.root / "usr/share/man/man1/featurehost.1.gz")
        self.assertEqual((SOURCES / "docs/featurehost.1").read_text(), page)
        completions = self.root / "usr/share/bash-completion/completions/featurehost"
        self.assertIn("complete ", completions.read_text())

    def test_installed_host_runs_an_update(self):
        folder = self.work_folder()
        (folder / "factory.bin").write_bytes(b"0123456789" * 20)
        (folder / "update.toml").write_text(
            '[maincpu]\nupdatelist = "factorydata"\nupdateprogresslist = "100"\n'
            'factorydatasource = "factory.bin"\nfactorydatatarget = "device"\n'
            'factorydataoffset = 5\nfactorydatasize = 10\n')
        run(self.host, "install", "update.toml", cwd=folder)
        self.assertEqual(b"5678901234", (folder / "device").read_bytes())

    def test_external_host_is_built_with_cmake_and_runs_the_module(self):
        folder = self.work_folder()
        (folder / "factory.bin").write_bytes(b"0123456789" * 20)
        properties = {
            "updatelist": "factorydata", "updateprogresslist": "100",
            "factorydatasource": "factory.bin", "factorydatatarget": "device",
            "factorydataoffset": "5", "factorydatasize": "10"}
        output = run(self.external_host(), self.modules / "libmaincpuloader.so", cwd=folder,
                     env={**os.environ, **properties})
        self.assertEqual("installed", output.splitlines()[-1])
        self.assertEqual(b"5678901234", (folder / "device").read_bytes())

    def test_external_module_is_built_with_pkg_config_and_runs_in_both_hosts(self):
        module = self.external_module()
        self.assertEqual("example\n", run(self.host, "type", "--module", module))
        self.assertIn("100 %", run(self.external_host(), module))
        folder = self.work_folder()
        (folder / "update.toml").write_text("[example]\n")
        # The checks before an install know the properties of our own module only.
        run(self.host, "install", "update.toml", "--no-lint", "--module", module, cwd=folder)

    def test_cmake_installs_the_same_files_into_any_folder(self):
        folder = self.work_folder()
        run("cmake", "--install", SOURCES / "build/package", "--strip", "--prefix", folder)

        def files(root):
            return sorted(str(path.relative_to(root)) for path in root.rglob("*") if path.is_file())

        self.assertEqual(files(self.root / "usr"), files(folder))
        self.assertEqual("maincpuloader\n", run(folder / "bin/featurehost", "type", cwd="/"))

    def test_cmake_package_tells_versions_apart(self):
        folder = self.work_folder()
        major, minor = VERSION.split(".")[:2]
        fitting, other = f"{major}.{minor}", f"{int(major) + 1}.0"
        for version, found in ((fitting, "1"), (other, "0")):
            (folder / "CMakeLists.txt").write_text(
                "cmake_minimum_required(VERSION 3.25)\nproject(versions LANGUAGES CXX)\n"
                f"find_package(featurehost {version} QUIET)\n"
                'message("found: ${featurehost_FOUND} ${featurehost_VERSION} '
                '${featurehost_MODULES}")\n')
            result = subprocess.run(
                ["cmake", "-S", folder, "-B", folder / version,
                 f"-DCMAKE_PREFIX_PATH={self.root}/usr"],
                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=True).stdout
            self.assertIn(f"found: {found}", result)
            if found == "1":
                self.assertIn(f"{VERSION} {self.modules.resolve()}", result)

    def test_headers_stand_for_themselves(self):
        flags = run("pkg-config", "--cflags", "featurehost", env=self.environment).split()
        headers = sorted(path.name for path in (SOURCES / "host").glob("*.h"))
        installed = self.root / "usr/include/featurehost/host"
        self.assertEqual(headers, sorted(path.name for path in installed.iterdir()))
        for header in headers:
            run("c++", "-std=c++17", *flags, "-fsyntax-only", "-x", "c++", "-include",
                f"host/{header}", "/dev/null", cwd=self.folder)


if __name__ == "__main__":
    unittest.main(verbosity=2)
