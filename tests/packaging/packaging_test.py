"""What is installed beside the programs, held against the programs themselves.

packaging_test.py BUILD-FOLDER VERSION: the folder holds bin/korvane and bin/korvanectl of that version.
"""
import os
import pathlib
import pty
import re
import select
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import xml.etree.ElementTree

SOURCE = pathlib.Path(__file__).resolve().parents[2]
PACKAGING = SOURCE / "packaging"
PROGRAMS = ("korvane", "korvanectl")
HELPERS = ("korvane-mcp-host", "korvane-preview", "korvane-shortcuts")
SIZES = (16, 22, 24, 32, 48, 64, 128, 256, 512)


def said(*command, **more):
    return subprocess.run(command, check=True, capture_output=True, text=True, timeout=60, **more).stdout


def help_of(program):
    return said(BUILD / "bin" / program, "--help")


def commands():
    """The commands of korvanectl, each with what may follow it, as its own help tells them."""
    found = {}
    for line in help_of("korvanectl").splitlines():
        if not (words := re.match(r"  ([a-z]+)((?: [^ ]+)*)", line)):
            continue
        tasks = found.setdefault(words[1], [])
        following = words[2].split()
        if following and re.fullmatch("[a-z]+", following[0]):
            tasks.append(following[0])
    return found


def options(program):
    return set(re.findall(r"(?<![\w-])--[a-z][a-z-]*", help_of(program)))


def manual(program):
    """The manual as it is read: without the marks of its source."""
    text = (PACKAGING / "man" / f"{program}.1").read_text()
    text = re.sub(r"\\f[A-Z]|\"", "", text.replace("\\-", "-"))
    return re.sub(r"^\.[BIR]+ ", "", text, flags=re.M)


def completions(program, shell):
    return (PACKAGING / "completions" / f"{program}.{shell}").read_text()


def offered(*words):
    """What bash offers for the last of the words."""
    script = 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _${1}; printf "%s\\n" "${COMPREPLY[@]}"'
    path = f"{BUILD / 'bin'}:{os.environ['PATH']}"
    file = PACKAGING / "completions" / f"{words[0]}.bash"
    return set(said("bash", "-c", script, "bash", file, *words, env={**os.environ, "PATH": path}).split("\n")) - {""}


class Manuals(unittest.TestCase):
    def test_tell_every_option(self):
        for program in PROGRAMS:
            for option in options(program):
                with self.subTest(program=program, option=option):
                    self.assertRegex(manual(program), rf"(?m)(^|[ \[]){option}\b(?!-)")

    def test_tell_every_command(self):
        text = manual("korvanectl")
        for command, tasks in commands().items():
            for words in [f"{command} {task}" for task in tasks] or [command]:
                with self.subTest(words=words):
                    self.assertRegex(text, rf"(?m)^\.TP\n{words}\b")

    def test_tell_no_option_that_the_program_does_not_know(self):
        for program in PROGRAMS:
            section = manual(program).split(".SH OPTIONS")[1].split(".SH")[0]
            told = set(re.findall(r"(?m)^\.TP\n(--[a-z-]+)", section))
            self.assertLessEqual(told, options(program))
            self.assertTrue(told)

    def test_are_set_without_a_warning(self):
        for program in PROGRAMS:
            page = PACKAGING / "man" / f"{program}.1"
            if shutil.which("man"):
                done = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", page],
                                      env={**os.environ, "LC_ALL": "C.UTF-8"}, capture_output=True, text=True)
                self.assertEqual((done.returncode, done.stderr), (0, ""))
            if shutil.which("mandoc"):
                done = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", page], capture_output=True, text=True)
                self.assertEqual((done.returncode, done.stdout + done.stderr), (0, ""))
            self.assertIn(".SH NAME\n", page.read_text())


class Completions(unittest.TestCase):
    def test_of_bash_offer_just_the_commands_of_the_program(self):
        self.assertEqual(offered("korvanectl", ""), set(commands()))

    def test_of_bash_offer_just_what_may_follow_a_command(self):
        for command, tasks in commands().items():
            if tasks:
                with self.subTest(command=command):
                    self.assertEqual(offered("korvanectl", command, ""), set(tasks))

    def test_of_bash_offer_just_the_options_of_the_program(self):
        self.assertEqual(offered("korvane", "--"), options("korvane"))
        everywhere = offered("korvanectl", "--")
        some = {option for command in commands() for option in offered("korvanectl", command, "--")}
        self.assertEqual(everywhere, {"--json", "--yes", "--help", "--version"})
        self.assertEqual(some, options("korvanectl"))

    def test_of_bash_offer_values_behind_options_before_commands(self):
        self.assertEqual(offered("korvanectl", "search", "x", "--category", "f"), {"files"})
        self.assertEqual(offered("korvanectl", "--json", "index", "ro"), {"roots"})

    def test_of_zsh_name_just_the_commands_of_the_program(self):
        text = completions("korvanectl", "zsh")
        table = text.split("commands=(")[1].split("    )\n")[0]
        self.assertEqual(set(re.findall(r"(?m)^ +['\"]([a-z]+):", table)), set(commands()))
        for command, tasks in commands().items():
            if tasks:
                branch = re.search(rf"(?s)\n    {command}\) tasks=\((.*?)\) ;;", text)[1]
                self.assertEqual(set(re.findall(r"'([a-z]+):", branch)), set(tasks))

    def test_of_zsh_name_just_the_options_of_the_program(self):
        for program in PROGRAMS:
            named = set(re.findall(r"'\*?(--[a-z-]+)[=\[]", completions(program, "zsh")))
            self.assertEqual(named, options(program))

    def test_of_fish_name_just_the_commands_of_the_program(self):
        text = completions("korvanectl", "fish")
        self.assertEqual(set(re.findall(r"-n __korvanectl_said -a ([a-z]+)", text)), set(commands()))
        for command, tasks in commands().items():
            named = re.findall(rf"-n '__korvanectl_said {command}' -a ([a-z]+)", text)
            self.assertEqual(set(named), set(tasks))

    def test_of_fish_name_just_the_options_of_the_program(self):
        for program in PROGRAMS:
            named = {"--" + option for option in re.findall(r"(?m)^complete .* -l ([a-z-]+)", completions(program, "fish"))}
            self.assertEqual(named, options(program))

    def test_are_understood_by_their_shells(self):
        for shell in ("bash", "zsh", "fish"):
            if shutil.which(shell):
                for program in PROGRAMS:
                    said(shell, "-n", PACKAGING / "completions" / f"{program}.{shell}")

    def test_of_fish_offer_what_may_follow_a_command(self):
        if not shutil.which("fish"):
            self.skipTest("fish is not installed")
        script = f'source {PACKAGING}/completions/korvanectl.fish; complete -C "korvanectl index "'
        with tempfile.TemporaryDirectory() as home:
            lines = said("fish", "--no-config", "-c", script, env={**os.environ, "HOME": home}).splitlines()
        self.assertEqual({line.split("\t")[0] for line in lines}, set(commands()["index"]))


    def test_of_zsh_offer_what_may_follow_a_command(self):
        if not shutil.which("zsh"):
            self.skipTest("zsh is not installed")
        with tempfile.TemporaryDirectory() as home:
            shutil.copy(PACKAGING / "completions/korvanectl.zsh", pathlib.Path(home, "_korvanectl"))
            pathlib.Path(home, ".zshrc").write_text("fpath=(~ $fpath); autoload -U compinit; compinit -u; PS1='ready> '\n")
            process, terminal = pty.fork()
            if process == 0:
                os.execvpe("zsh", ["zsh", "-d", "-i"], {"HOME": home, "PATH": os.environ["PATH"], "TERM": "dumb", "COLUMNS": "200"})
            try:
                self.read_until(terminal, "ready> ")
                os.write(terminal, b"korvanectl index \t\t")
                for task in sorted(commands()["index"]):
                    self.read_until(terminal, f"{task} +-- ")
            finally:
                os.kill(process, signal.SIGKILL)
                os.waitpid(process, 0)
                os.close(terminal)

    said_by_terminal = ""

    def read_until(self, terminal, pattern):
        deadline = time.monotonic() + 20
        while not re.search(pattern, self.said_by_terminal):
            ready = select.select([terminal], [], [], max(0, deadline - time.monotonic()))[0]
            self.assertTrue(ready, f"no {pattern} in {self.said_by_terminal}")
            self.said_by_terminal += os.read(terminal, 4096).decode(errors="replace")


class Icons(unittest.TestCase):
    def test_have_the_size_that_their_folder_says(self):
        for size in SIZES:
            head = (PACKAGING / "icons" / f"{size}.png").read_bytes()[:24]
            self.assertEqual(head[:8], b"\x89PNG\r\n\x1a\n")
            self.assertEqual(struct.unpack(">II", head[16:24]), (size, size))


class Entries(unittest.TestCase):
    def test_of_the_desktop_are_valid(self):
        if not shutil.which("desktop-file-validate"):
            self.skipTest("desktop-file-validate is not installed")
        self.assertEqual(said("desktop-file-validate", PACKAGING / "dev.korvane.vorrel.desktop"), "")

    def test_of_software_centres_are_valid(self):
        if not shutil.which("appstreamcli"):
            self.skipTest("appstreamcli is not installed")
        said("appstreamcli", "validate", "--no-net", "--pedantic", PACKAGING / "dev.korvane.vorrel.metainfo.xml")


class Versions(unittest.TestCase):
    def test_are_one_everywhere(self):
        for program in PROGRAMS:
            self.assertEqual(said(BUILD / "bin" / program, "--version"), f"{program} {VERSION}\n")
            self.assertIn(f'"Korvane {VERSION}"', (PACKAGING / "man" / f"{program}.1").read_text())
        self.assertTrue((SOURCE / "debian/changelog").read_text().startswith(f"korvane ({VERSION}) "))
        metainfo = xml.etree.ElementTree.parse(PACKAGING / "dev.korvane.vorrel.metainfo.xml")
        self.assertEqual(metainfo.find("releases/release").get("version"), VERSION)


class Installation(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.prefix = pathlib.Path(cls.folder.name) / "usr"
        said("cmake", "--install", BUILD, "--prefix", cls.prefix)

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def test_holds_just_what_belongs_to_it(self):
        expected = {f"bin/{program}" for program in PROGRAMS} | {f"libexec/korvane/{helper}" for helper in HELPERS}
        expected |= {"share/applications/dev.korvane.vorrel.desktop", "share/metainfo/dev.korvane.vorrel.metainfo.xml",
                     "share/icons/hicolor/scalable/apps/dev.korvane.vorrel.svg"}
        expected |= {f"share/icons/hicolor/{size}x{size}/apps/dev.korvane.vorrel.png" for size in SIZES}
        for program in PROGRAMS:
            expected |= {f"share/man/man1/{program}.1", f"share/bash-completion/completions/{program}",
                         f"share/zsh/site-functions/_{program}", f"share/fish/vendor_completions.d/{program}.fish"}
        bundle = SOURCE / "resources/Korvane_Vorrel.bundle"
        expected |= {f"share/korvane/{bundle.name}/{file.relative_to(bundle)}" for file in bundle.rglob("*") if file.is_file()}
        installed = {str(file.relative_to(self.prefix)) for file in self.prefix.rglob("*") if file.is_file()}
        self.assertEqual(installed, expected)

    def test_finds_its_helpers_wherever_it_stands(self):
        home = pathlib.Path(self.folder.name) / "home"
        shortcut = home / ".config/korvane/shortcuts/Water plants.sh"
        shortcut.parent.mkdir(parents=True)
        shortcut.write_text("#!/bin/sh\n")
        shortcut.chmod(0o700)
        environment = {"HOME": str(home), "PATH": "/usr/bin:/bin", "LC_ALL": "C.UTF-8"}
        self.assertEqual(said(self.prefix / "bin/korvanectl", "shortcuts", "list", env=environment), "Water plants\n")

    def test_names_no_folder_of_whoever_built_it(self):
        for program in [f"bin/{program}" for program in PROGRAMS] + [f"libexec/korvane/{helper}" for helper in HELPERS]:
            with self.subTest(program=program):
                self.assertNotIn(str(SOURCE).encode(), (self.prefix / program).read_bytes())


class Packing(unittest.TestCase):
    def test_a_link_in_a_document_of_the_package_leads_to_another_one(self):
        packaged = {SOURCE / line for line in (SOURCE / "debian/korvane.docs").read_text().split()}
        for document in packaged:
            for target in re.findall(r"\]\((?!https?:|#)([^)#]+)", document.read_text()):
                self.assertIn((document.parent / target).resolve(), packaged, document.name)

    def test_packing_removes_only_what_it_made(self):
        with tempfile.TemporaryDirectory() as folder:
            tree = pathlib.Path(folder, "tree")
            tools = pathlib.Path(folder, "tools")
            tools.mkdir()
            shutil.copytree(SOURCE / "debian", tree / "debian", ignore=shutil.ignore_patterns("korvane", ".debhelper"))
            (tree / "scripts").mkdir()
            shutil.copy(SOURCE / "scripts/package", tree / "scripts")
            before = set(tree.rglob("*"))
            mine = {tree / name for name in ("notes.orig", "half.rej", "letter~", "debian/rules.bak")}
            for path in mine:
                path.write_text("mine")
            # In the place of the real build: what it leaves behind, and what it is when asked to clean.
            leaves = ("mkdir -p debian/korvane/usr debian/.debhelper\n"
                      "touch debian/korvane.substvars debian/files debian/debhelper-build-stamp $KORVANE_PACKAGES/korvane.deb")
            for name, work in (("fakeroot", 'exec "$@"'), ("dh", '[ "$1" = clean ] && exec dh_clean\n' + leaves)):
                (tools / name).write_text("#!/bin/sh\n" + work + "\n")
                (tools / name).chmod(0o755)
            said(tree / "scripts/package", env={**os.environ, "PATH": f"{tools}:{os.environ['PATH']}"})
            self.assertTrue((tree / "build/package/korvane.deb").exists())
            left = {path for path in tree.rglob("*") if "build" not in path.relative_to(tree).parts}
            self.assertEqual(left, before | mine)


if __name__ == "__main__":
    BUILD, VERSION = pathlib.Path(sys.argv[1]).resolve(), sys.argv[2]
    unittest.main(argv=sys.argv[:1], verbosity=1)
