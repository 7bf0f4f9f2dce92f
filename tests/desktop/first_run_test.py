#!/usr/bin/python3
"""The first start of the real program, by somebody who knows nothing of it: first_run_test.py KORVANE

Runs inside with-desktop.sh --accessibility, each test in an empty home of its own. Every wait looks again until a deadline.
With KORVANE_PICTURES, a folder, pictures of the screen are left there.
"""
import os
import pathlib
import subprocess
import sys
import tempfile
import time
import unittest

from screen_reader import Atspi, below, children, find_program, has, soon

KORVANE = sys.argv.pop(1)
Role, State = Atspi.Role, Atspi.StateType
PALETTE, SETTINGS = "Korvane Vorrel", "Korvane Settings"


def press(keys):
    subprocess.run(["xdotool", "key", keys], check=True)


def type_text(text):
    subprocess.run(["xdotool", "type", "--delay", "10", text], check=True)


def picture(name):
    if folder := os.environ.get("KORVANE_PICTURES"):
        time.sleep(0.4)  # what fades in has come
        subprocess.run(["import", "-window", "root", f"{folder}/{name}.png"], check=True)


class FirstRun(unittest.TestCase):
    def setUp(self):
        self.home = self.empty_home()
        self.program = None

    def tearDown(self):
        self.end()

    @staticmethod
    def empty_home():
        return pathlib.Path(tempfile.mkdtemp(dir=os.environ["KORVANE_DESKTOP_FOLDER"]))

    def start(self, *words):
        places = {"HOME": "", "XDG_CONFIG_HOME": ".config", "XDG_DATA_HOME": ".local/share", "XDG_CACHE_HOME": ".cache"}
        environment = dict(os.environ, **{name: str(self.home / place) for name, place in places.items()})
        self.log = tempfile.TemporaryFile()
        self.addCleanup(self.log.close)
        self.program = subprocess.Popen([KORVANE, *words], env=environment, stdin=subprocess.DEVNULL, stdout=self.log,
                                        stderr=self.log)
        self.root = soon(lambda: find_program(self.program), "the program")
        soon(lambda: "Korvane is ready" in self.said(), "the program ready")

    def end(self):
        if self.program:
            self.program.terminate()
            self.program.wait(10)
            self.program = None

    def said(self):
        return os.pread(self.log.fileno(), 1 << 20, 0).decode()

    def window(self, name):
        return next((child for child in children(self.root) if child.get_name() == name and has(child, State.SHOWING)), None)

    def shown(self, name):
        return soon(lambda: self.window(name), name)

    def hidden(self, name):
        soon(lambda: self.window(name) is None, name + " gone")

    def holds_keyboard(self, window, role):
        return soon(lambda: next((node for node in below(window) if node.get_role() == role and has(node, State.FOCUSED)), None),
                    "the keyboard in " + window.get_name())

    def says(self, window, sentence):
        soon(lambda: any(node.get_name() == sentence and has(node, State.SHOWING) for node in below(window)), sentence)

    def finds(self, text, row):
        """Types into the palette, anew each half second, until the first row is this one."""
        palette = self.shown(PALETTE)
        self.holds_keyboard(palette, Role.TEXT)
        typed = 0

        def first():
            nonlocal typed
            if time.monotonic() - typed > 0.5:
                press("ctrl+a")
                type_text(text)
                typed = time.monotonic()
            found = next((node for node in below(palette) if node.get_role() == Role.LIST_ITEM), None)
            return found is not None and found.get_name().startswith(row)

        soon(first, row + " as the first row")

    def push(self, window, name):
        button = soon(lambda: next((node for node in below(window) if node.get_role() == Role.PUSH_BUTTON
                                    and node.get_name() == name and has(node, State.SHOWING)), None), name)
        Atspi.Action.do_action(button, 0)

    def test_the_palette_comes_by_itself_names_its_key_and_finds_what_a_new_user_looks_for(self):
        self.start()
        palette = self.shown(PALETTE)
        self.says(palette, "Press Alt+Space to open or hide Korvane.")
        self.holds_keyboard(palette, Role.TEXT)
        picture("first")
        self.assertIsNone(self.window(SETTINGS))
        press("alt+space")
        self.hidden(PALETTE)
        press("alt+space")
        palette = self.shown(PALETTE)
        self.assertFalse(any("Alt+Space" in node.get_name() for node in below(palette) if has(node, State.SHOWING)))
        picture("second")

        (self.home / "walrus diary.txt").write_text("A quiet day.")
        made = time.monotonic()
        self.finds("walrus", "walrus diary.txt")
        self.assertLess(time.monotonic() - made, 5)
        picture("file")

        self.finds("settings", "Open Settings")
        picture("settings-row")
        press("Return")
        settings = self.shown(SETTINGS)
        self.says(settings, "Korvane lives in the tray. Press the global shortcut to open or hide the command window.")
        picture("settings")

    def test_a_later_start_shows_nothing_until_the_key(self):
        self.start()
        self.shown(PALETTE)
        self.end()
        self.start()
        self.assertIsNone(self.window(PALETTE))
        self.assertIsNone(self.window(SETTINGS))
        press("alt+space")
        self.shown(PALETTE)
        self.assertEqual(self.said().count("Palette shown"), 1)
        self.assertNotIn("Palette hidden", self.said())

    def test_where_the_key_is_taken_the_settings_say_so_and_another_one_is_recorded(self):
        self.start("--rebuild-index")  # the same program for another home is another program with that key
        self.addCleanup(self.program.wait, 10)
        self.addCleanup(self.program.terminate)
        self.home = self.empty_home()
        self.start()
        settings = self.shown(SETTINGS)
        self.says(settings, "Shortcut needs attention")
        self.says(settings, "No global shortcut is active. Open Korvane or Settings from the tray icon, or start Korvane again.")
        self.assertIsNone(self.window(PALETTE))
        picture("taken")
        self.push(settings, "Record a Different Shortcut")
        recorder = self.holds_keyboard(settings, Role.PUSH_BUTTON)
        self.assertEqual(recorder.get_name(), "Record global shortcut")
        press("ctrl+alt+j")
        self.says(settings, "Draft: Ctrl+Alt+J — choose Save Settings to apply.")
        picture("recorded")
        self.push(settings, "Save Settings")
        self.says(settings, "Settings saved.")
        picture("saved")
        press("Escape")
        self.hidden(SETTINGS)
        press("ctrl+alt+j")
        self.shown(PALETTE)


if __name__ == "__main__":
    unittest.main(verbosity=2)
