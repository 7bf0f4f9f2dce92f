#!/usr/bin/python3
"""The settings of the real program, worked by the keyboard and found as a screen reader finds them: settings_test.py KORVANE

Runs inside with-desktop.sh --accessibility. Every wait looks again until a deadline.
"""
import os
import subprocess
import tempfile
import unittest

import accessibility_test as reader
from accessibility_test import Atspi, Role, State, below, children, has, press, soon

KORVANECTL = os.path.join(os.path.dirname(reader.KORVANE), "korvanectl")
TABS = ("General", "File Index", "Clipboard", "AI", "Agents", "MCP")
CONTROLS = {Role.PUSH_BUTTON, Role.CHECK_BOX, Role.TEXT, Role.PASSWORD_TEXT, Role.LIST, Role.PAGE_TAB, Role.TOGGLE_BUTTON}


def type_text(text):
    subprocess.run(["xdotool", "type", "--delay", "10", text], check=True)


class Settings(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.log = tempfile.TemporaryFile()
        cls.program = subprocess.Popen([reader.KORVANE, "--settings"], stdin=subprocess.DEVNULL, stdout=cls.log, stderr=cls.log)
        cls.root = soon(lambda: next((child for child in children(Atspi.get_desktop(0))
                                      if child.get_process_id() == cls.program.pid), None), "the program")
        cls.window = soon(lambda: cls.window_named("Korvane Settings"), "the settings")
        # The keyboard is the window's once Tab marks something.
        soon(lambda: press("Tab") or cls.focused(), "the keyboard in the window")

    @classmethod
    def tearDownClass(cls):
        cls.program.terminate()
        cls.program.wait(10)
        cls.log.close()

    @classmethod
    def window_named(cls, name):
        return next((child for child in children(cls.root) if child.get_name() == name and has(child, State.SHOWING)), None)

    @classmethod
    def focused(cls):
        return next((node for node in below(cls.window) if has(node, State.FOCUSED)), None)

    def named(self, role, name):
        return soon(lambda: next((node for node in below(self.window) if node.get_role() == role and node.get_name() == name
                                  and has(node, State.SHOWING)), None), f"{name} as {role.value_nick}")

    def open_tab(self, name):
        Atspi.Action.do_action(self.named(Role.PAGE_TAB, name), 0)
        soon(lambda: has(self.named(Role.PAGE_TAB, name), State.SELECTED), "the tab " + name)

    def walk_to(self, name, key="Tab"):
        """Presses a key until the control of this name has the keyboard."""
        for _ in range(40):
            before = self.focused()
            if before is not None and before.get_name() == name:
                return before
            press(key)
            soon(lambda: (now := self.focused()) is not None and now != before, "another control")
        self.fail(f"{name} was not reached by {key}")

    def says(self, sentence):
        soon(lambda: any(node.get_name() == sentence and has(node, State.SHOWING) for node in below(self.window)), sentence)

    def test_the_keyboard_turns_the_pages_and_every_control_of_each_has_a_name(self):
        self.open_tab("MCP")
        for name in TABS:
            press("ctrl+Next")
            tab = self.named(Role.PAGE_TAB, name)
            soon(lambda: has(tab, State.SELECTED, State.FOCUSED), name)
            for node in below(self.window):
                if node.get_role() in CONTROLS and has(node, State.SHOWING, State.FOCUSABLE):
                    self.assertTrue(node.get_name().strip(), f"a {node.get_role_name()} of {name} has no name")
        self.open_tab("AI")
        self.assertEqual(self.named(Role.PASSWORD_TEXT, "API Key (leave blank to keep saved key)").get_name()[:7], "API Key")

    def test_the_size_of_the_history_is_changed_and_stored(self):
        self.open_tab("Clipboard")
        self.walk_to("Maximum History Items (1–10,000)")
        press("ctrl+a")
        type_text("42")
        self.walk_to("Save Settings")
        press("Return")
        self.says("Settings saved.")
        self.assertEqual(reader.output(KORVANECTL, "settings", "get", "clipboardLimit").strip(), "42")

    def test_a_quicklink_that_is_added_is_a_row_of_the_palette(self):
        self.open_tab("General")
        self.walk_to("Name", "shift+Tab")
        type_text("Zebra tables")
        self.walk_to("Address (https://… or a file path)")
        type_text("https://example.org/zebra")
        press("Return")
        self.says("Quicklink saved. It appears in the palette immediately.")
        press("Escape")
        soon(lambda: self.window_named("Korvane Settings") is None, "the settings gone")
        subprocess.run([reader.KORVANE], check=True)
        palette = soon(lambda: self.window_named("Korvane Vorrel"), "the palette")
        field = soon(lambda: next((node for node in below(palette) if node.get_role() == Role.TEXT
                                   and has(node, State.FOCUSED)), None), "the keyboard in its field")
        Atspi.EditableText.set_text_contents(field, "zebra")
        soon(lambda: any(node.get_role() == Role.LIST_ITEM and node.get_name().startswith("Zebra tables")
                         for node in below(palette)), "the row of the quicklink")


if __name__ == "__main__":
    unittest.main(verbosity=2)
