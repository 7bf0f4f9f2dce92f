#!/usr/bin/python3
"""The settings of the real program, worked by the keyboard and found as a screen reader finds them:
settings_test.py KORVANE KORVANECTL SERVER

Runs inside with-desktop.sh --accessibility. Every wait looks again until a deadline.
"""
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import time
import unittest

from screen_reader import Atspi, below, children, find_program, has, soon

SERVER = sys.argv.pop(3)
KORVANECTL = sys.argv.pop(2)
KORVANE = sys.argv.pop(1)
Role, State = Atspi.Role, Atspi.StateType
TABS = ("General", "File Index", "Clipboard", "AI", "Agents", "MCP")
CONTROLS = {Role.PUSH_BUTTON, Role.CHECK_BOX, Role.TEXT, Role.PASSWORD_TEXT, Role.LIST, Role.PAGE_TAB, Role.TOGGLE_BUTTON}


def press(keys):
    subprocess.run(["xdotool", "key", keys], check=True)


def type_text(text):
    subprocess.run(["xdotool", "type", "--delay", "10", text], check=True)


def running(*words):
    """Whether a process was started with exactly these."""
    wanted = b"".join(word.encode() + b"\0" for word in words)
    for file in pathlib.Path("/proc").glob("[0-9]*/cmdline"):
        try:
            if file.read_bytes() == wanted:
                return True
        except OSError:
            pass  # it has just gone
    return False


class Settings(unittest.TestCase):
    def setUp(self):
        self.log = tempfile.TemporaryFile()
        self.program = subprocess.Popen([KORVANE, "--settings"], stdin=subprocess.DEVNULL, stdout=self.log, stderr=self.log)
        self.root = soon(lambda: find_program(self.program), "the program")
        self.window = soon(lambda: self.window_named("Korvane Settings"), "the settings")
        # The keyboard is the window's once Tab marks something.
        soon(lambda: press("Tab") or self.focused(), "the keyboard in the window")

    def tearDown(self):
        self.program.terminate()
        self.program.wait(10)
        self.log.close()

    def window_named(self, name):
        return next((child for child in children(self.root) if child.get_name() == name and has(child, State.SHOWING)), None)

    def focused(self):
        # The toolkit calls the current item of a list focused, wherever the keyboard is.
        return next((node for node in below(self.window) if has(node, State.FOCUSED) and node.get_role() != Role.LIST_ITEM), None)

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

    def push(self, name):
        Atspi.Action.do_action(self.named(Role.PUSH_BUTTON, name), 0)

    def in_panel(self, name):
        """The button of this name in a window over the settings, which asks for a file."""
        return soon(lambda: next((node for window in children(self.root) if window.get_name() != self.window.get_name()
                                  for node in below(window) if node.get_role() == Role.PUSH_BUTTON and node.get_name() == name
                                  and has(node, State.SHOWING)), None), name + " in the panel")

    def answer_panel(self, path, name):
        """Types a path into the panel and accepts it, once the panel has taken it."""
        button = self.in_panel(name)
        field = soon(lambda: next((node for window in children(self.root) if window.get_name() != self.window.get_name()
                                   for node in below(window) if node.get_role() == Role.TEXT and has(node, State.FOCUSED)), None),
                     "the keyboard in the panel")
        Atspi.EditableText.set_text_contents(field, str(path))
        soon(lambda: has(button, State.ENABLED), "a panel that takes the path")
        Atspi.Action.do_action(button, 0)

    def palette(self):
        """The palette in the place of the settings, with its field."""
        press("Escape")
        soon(lambda: self.window_named("Korvane Settings") is None, "the settings gone")
        subprocess.run([KORVANE], check=True)
        return self.shown_palette()

    def shown_palette(self):
        palette = soon(lambda: self.window_named("Korvane Vorrel"), "the palette")
        field = soon(lambda: next((node for node in below(palette) if node.get_role() == Role.TEXT
                                   and has(node, State.FOCUSED)), None), "the keyboard in its field")
        return palette, field

    def finds(self, query, row):
        palette, field = self.palette()
        Atspi.EditableText.set_text_contents(field, query)
        soon(lambda: any(node.get_role() == Role.LIST_ITEM and node.get_name().startswith(row) for node in below(palette)),
             "the row " + row)

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
        self.named(Role.PASSWORD_TEXT, "API Key (leave blank to keep saved key)")

    def test_the_size_of_the_history_is_changed_and_stored(self):
        self.open_tab("Clipboard")
        self.walk_to("Maximum History Items (1–10,000)")
        press("ctrl+a")
        type_text("42")
        self.walk_to("Save Settings")
        press("Return")
        self.says("Settings saved.")
        stored = subprocess.run([KORVANECTL, "settings", "get", "clipboardLimit"], check=True, capture_output=True, text=True)
        self.assertEqual(stored.stdout.strip(), "42")

    def test_a_quicklink_that_is_added_is_a_row_of_the_palette(self):
        self.open_tab("General")
        self.walk_to("Name", "shift+Tab")
        type_text("Zebra tables")
        self.walk_to("Address (https://… or a file path)")
        type_text("https://example.org/zebra")
        press("Return")
        self.says("Quicklink saved. It appears in the palette immediately.")
        self.finds("zebra", "Zebra tables")

    def test_a_file_in_a_folder_that_is_added_is_found_in_the_palette(self):
        folder = pathlib.Path(os.environ["KORVANE_DESKTOP_FOLDER"], "added")
        folder.mkdir()
        (folder / "giraffe census.txt").write_text("Four.")
        self.open_tab("File Index")
        self.push("Add Folder…")
        self.answer_panel(folder, "Search Here")
        self.says(str(folder))
        self.finds("giraffe", "giraffe census.txt")

    def test_a_credential_is_kept_in_the_keyring(self):
        subprocess.run(["gnome-keyring-daemon", "--unlock", "--components=secrets"], input=b"password", check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.open_tab("MCP")
        self.walk_to("Account reference")
        type_text("tide-table")
        self.walk_to("Secret")
        type_text("high water")
        press("Return")
        self.says("Credential saved in the keyring.")
        known = subprocess.run([KORVANECTL, "secret", "has", "tide-table"], capture_output=True, text=True, timeout=30)
        self.assertEqual(known.returncode, 0, known.stderr)

    def test_an_agent_that_is_saved_is_a_row_of_the_palette(self):
        self.open_tab("Agents")
        self.walk_to("Agent name")
        press("ctrl+a")
        type_text("Okapi keeper")
        self.walk_to("Save Agent", "shift+Tab")
        press("Return")
        self.says("Agent saved. Search its name in the command window.")
        self.assertEqual(self.focused().get_name(), "Save Agent")
        self.finds("okapi", "Okapi keeper")

    def test_the_switch_for_the_login_writes_the_autostart_entry_and_removes_it(self):
        entry = pathlib.Path(os.environ["XDG_CONFIG_HOME"], "autostart/dev.korvane.vorrel.desktop")
        self.walk_to("Launch at Login")
        press("space")
        self.says("Korvane will open at login.")
        self.assertIn(KORVANE, entry.read_text())
        press("space")
        self.says("Korvane will not open at login.")
        self.assertFalse(entry.exists())

    def test_a_key_that_is_recorded_and_saved_opens_the_palette(self):
        self.walk_to("Record global shortcut")
        press("Return")
        soon(lambda: (now := self.focused()) is not None and now.get_name() == "Record global shortcut", "the recorder")
        press("ctrl+alt+j")
        self.says("Draft: Ctrl+Alt+J — choose Save Settings to apply.")
        self.walk_to("Save Settings", "shift+Tab")
        press("Return")
        self.says("Settings saved.")
        press("Escape")
        soon(lambda: self.window_named("Korvane Settings") is None, "the settings gone")
        press("ctrl+alt+j")
        self.shown_palette()

    def test_the_diagnostics_are_written_where_the_user_says(self):
        file = pathlib.Path(os.environ["HOME"], "report.txt")
        self.push("Export Diagnostics…")
        self.answer_panel(file, "Save")
        self.says("Diagnostics exported.")
        lines = file.read_text().split("\n")
        self.assertEqual(lines[:2], ["Korvane Diagnostics", "==================="])
        self.assertIn("- Registered: yes", lines)
        self.assertEqual(lines[-1], "This export contains no clipboard content, file paths, search text, conversations or credentials.")

    def add_server(self, mode):
        self.open_tab("MCP")
        server = json.dumps({"id": mode, "name": "Notes", "command": SERVER, "args": [mode]})
        Atspi.EditableText.set_text_contents(self.named(Role.TEXT, "Add a stdio server"), server)
        Atspi.Action.do_action(self.named(Role.PUSH_BUTTON, "Add Server"), 0)
        self.says("Server saved. Connect when ready.")
        self.addCleanup(subprocess.run, [KORVANECTL, "mcp", "remove", mode], check=True)

    def connect_server(self, mode, button):
        """Asks for the connection and answers the question by `button`."""
        Atspi.Action.do_action(self.named(Role.PUSH_BUTTON, "Connect"), 0)
        soon(lambda: any("Start MCP server “Notes”?" in node.get_name() for node in below(self.root)), "the question")
        self.assertFalse(running(SERVER, mode), "nothing starts before it is allowed")
        answer = soon(lambda: next((node for node in below(self.root) if node.get_role() == Role.PUSH_BUTTON
                                    and node.get_name() == button and has(node, State.SHOWING)), None), button)
        Atspi.Action.do_action(answer, 0)

    def test_a_server_is_started_once_that_is_allowed_and_ends_with_its_connection(self):
        self.add_server("good")
        self.connect_server("good", "Cancel")
        self.says("The operation was cancelled.")
        self.connect_server("good", "Allow")
        self.says("Connected · 1 tools")
        self.assertTrue(running(SERVER, "good"))
        Atspi.Action.do_action(self.named(Role.PUSH_BUTTON, "Disconnect"), 0)
        self.says("Disconnected")
        soon(lambda: not running(SERVER, "good"), "the end of the server")

    def test_a_server_that_ignores_every_request_to_end_goes_with_the_program_that_is_killed(self):
        self.add_server("stubborn")
        self.connect_server("stubborn", "Allow")
        self.says("Connected · 1 tools")
        self.assertTrue(running(SERVER, "stubborn"))
        self.program.kill()
        killed = time.monotonic()
        soon(lambda: not running(SERVER, "stubborn"), "the end of the server")
        self.assertLess(time.monotonic() - killed, 3)


if __name__ == "__main__":
    unittest.main(verbosity=2)
