"""A request to a model in the palette: the real window, its dialog, a real keyring, and a provider of the test's own.

ask_window_test.py KORVANE KORVANECTL, inside with-desktop.sh --accessibility.
"""
import json
import os
import pathlib
import sqlite3
import subprocess
import sys

import provider
from provider import ANSWER, KEY, Provider
from screen_reader import Atspi, below, find_program, has, soon

KORVANE, KORVANECTL = sys.argv[1:]


def press(*keys):
    subprocess.run(["xdotool", "key", *keys], check=True)


def write(text):
    subprocess.run(["xdotool", "type", "--delay", "15", text], check=True)


def companion(*words, given=""):
    subprocess.run([KORVANECTL, *words], input=given, text=True, check=True, timeout=30)


class Window:
    def __init__(self, program):
        self.root = soon(lambda: find_program(program), "the program among the accessible ones")

    def shown(self, role, name=""):
        """The first of this role whose name or text holds `name`."""
        for node in below(self.root):
            if node.get_role() == role and has(node, Atspi.StateType.SHOWING) and name in self.words(node):
                return node
        return None

    @staticmethod
    def words(node):
        text = Atspi.Text.get_text(node, 0, -1) if "Text" in (node.get_interfaces() or []) else ""
        return f"{node.get_name()}\n{text}"

    def says(self, text):
        return any(text in self.words(node) for node in below(self.root) if has(node, Atspi.StateType.SHOWING))

    def has_keyboard(self):
        field = self.shown(Atspi.Role.TEXT)
        return field is not None and has(field, Atspi.StateType.FOCUSED)


def main():
    environment = dict(os.environ, **provider.start())
    companion("settings", "set", "aiEnabled", "true")
    companion("secret", "set", "ai.openai", given=KEY)
    program = subprocess.Popen([KORVANE, "--show"], env=environment, stdin=subprocess.DEVNULL)
    try:
        window = Window(program)
        soon(window.has_keyboard, "the keyboard in the field")
        write("ask ai")
        soon(lambda: window.says("Ask AI"), "the row of requests")
        press("Return")
        soon(lambda: not window.says("ask ai"), "the mode of requests")
        soon(lambda: window.says("approval"), "the introduction")

        write("wait")
        press("Return")
        soon(lambda: window.says("Thinking…"), "that it works")
        soon(lambda: len(Provider.requests) == 1, "the request at the provider")
        press("Escape")
        soon(lambda: not window.says("Thinking…"), "the end of the request")
        assert window.says("approval") and not window.says("cancelled"), "Escape has no word and leaves nothing behind"
        soon(window.has_keyboard, "the keyboard still in the field")
        Provider.requests.clear()
        press("ctrl+a")

        write("copy the tide")
        press("Return")
        soon(lambda: window.shown(Atspi.Role.PUSH_BUTTON, "Allow"), "the question")
        assert window.says("clipboard.write") and window.says("tide at noon"), "what would happen is shown"
        press("Escape")
        soon(lambda: window.says("The operation was cancelled."), "the refusal")
        assert len(Provider.requests) == 2, "a refusal ends the request"
        soon(window.has_keyboard, "the keyboard back in the field")

        press("Return")  # the request still stands there
        soon(lambda: window.shown(Atspi.Role.PUSH_BUTTON, "Allow"), "the question, once more")
        soon(lambda: has(window.shown(Atspi.Role.PUSH_BUTTON, "Cancel"), Atspi.StateType.FOCUSED), "the safe answer first")
        press("Tab", "Return")
        soon(lambda: window.says("The tide is on the clipboard."), "the answer")
        assert len(Provider.requests) == 5, len(Provider.requests)
        copied = subprocess.run(["xclip", "-selection", "clipboard", "-o"], capture_output=True, timeout=5).stdout
        assert copied == b"tide at noon", copied
        assert not window.says(KEY)
        store = pathlib.Path(os.environ["XDG_DATA_HOME"]) / "Korvane" / "korvane.sqlite"
        kept = sqlite3.connect(store).execute("SELECT messages FROM conversations").fetchall()
        assert [[one["content"] for one in json.loads(text)] for (text,) in kept] == [["copy the tide", ANSWER]], kept
    finally:
        Provider.may_go_on.set()
        program.terminate()
        program.wait(10)


main()
