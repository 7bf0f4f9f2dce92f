#!/usr/bin/python3
"""The program as a screen reader finds it, from outside: accessibility_test.py KORVANE

Runs inside with-desktop.sh --accessibility. Every wait looks again until a deadline.
"""
import os
import subprocess
import sys
import tempfile
import time
import unittest

from screen_reader import Atspi, below, children, find_program, has, soon

KORVANE = sys.argv.pop(1)
Role, State = Atspi.Role, Atspi.StateType
WIDTH, HEIGHT = 700, 510


def place(node):
    return node.get_extents(Atspi.CoordType.SCREEN)


def contains(outer, inner):
    return (outer.x <= inner.x and outer.y <= inner.y and inner.x + inner.width <= outer.x + outer.width
            and inner.y + inner.height <= outer.y + outer.height)


def press(keys):
    subprocess.run(["xdotool", "key", keys], check=True)


def output(*words):
    return subprocess.run(words, check=True, capture_output=True, text=True).stdout


class Palette(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        applications = os.path.join(os.environ["XDG_DATA_HOME"], "applications")
        os.makedirs(applications)
        for name in ("Aardvark", "Aardwolf"):
            with open(os.path.join(applications, name.lower() + ".desktop"), "w") as entry:
                entry.write(f"[Desktop Entry]\nType=Application\nName={name}\nExec=true\n")
        subprocess.run(["xdotool", "mousemove", "40", "900"], check=True)
        cls.log = tempfile.TemporaryFile()
        cls.program = subprocess.Popen([KORVANE, "--show"], stdin=subprocess.DEVNULL, stdout=cls.log, stderr=cls.log)
        cls.root = soon(lambda: find_program(cls.program), "the program among the accessible ones")
        cls.window = soon(lambda: next((child for child in children(cls.root) if has(child, State.SHOWING)), None), "its window")
        soon(lambda: has(cls.field(), State.FOCUSED), "the keyboard in the field")

    @classmethod
    def tearDownClass(cls):
        cls.program.terminate()
        cls.program.wait(10)
        cls.log.close()

    def setUp(self):
        self.write("")
        soon(lambda: has(self.tab("All"), State.CHECKED) or has(self.tab("All"), State.SELECTED), "the first tab")

    @classmethod
    def named(cls, role, name):
        """The one that shows, if there is one."""
        return next((node for node in below(cls.window)
                     if node.get_role() == role and node.get_name() == name and has(node, State.SHOWING)), None)

    @classmethod
    def field(cls):
        return next(node for node in below(cls.window) if node.get_role() == Role.TEXT and has(node, State.EDITABLE))

    def tab(self, name):
        return soon(lambda: self.named(Role.PAGE_TAB, name), "the tab " + name)

    def results(self):
        return self.named(Role.LIST, "Results")

    def rows(self):
        listed = self.results()
        return children(listed) if listed else []

    def names(self):
        return [row.get_name() for row in self.rows()]

    def write(self, text):
        self.assertTrue(Atspi.EditableText.set_text_contents(self.field(), text))
        soon(lambda: self.text() == text, "the text in the field")

    def text(self):
        return Atspi.Text.get_text(self.field(), 0, -1)

    def test_the_window_is_named_and_stands_where_it_says(self):
        self.assertEqual(self.window.get_name(), "Korvane Vorrel")
        self.assertIn(self.window.get_role(), (Role.FRAME, Role.WINDOW, Role.DIALOG, Role.FILLER))
        at = place(self.window)
        shown = output("xwininfo", "-id", output("xdotool", "search", "--onlyvisible", "--pid", str(self.program.pid)).strip())
        for line in (f"upper-left X:  {at.x}", f"upper-left Y:  {at.y}", f"Width: {at.width}", f"Height: {at.height}"):
            self.assertIn(line, shown)

    def test_the_field_has_its_name_the_focus_and_its_place_at_the_top(self):
        field = self.field()
        self.assertEqual(field.get_name(), "Search commands, apps or ask AI")
        self.assertTrue(has(field, State.FOCUSED, State.FOCUSABLE, State.EDITABLE, State.SHOWING, State.ENABLED))
        window, at = place(self.window), place(field)
        self.assertTrue(contains(window, at))
        self.assertLess(at.y - window.y, HEIGHT // 4)

    def test_typing_through_the_interface_for_text_is_followed_by_the_list(self):
        self.write("aard")
        soon(lambda: len(self.names()) >= 2 and self.names()[0].startswith("Aardvark"), "the rows of both")
        self.write("aardw")
        soon(lambda: self.names() and self.names()[0].startswith("Aardwolf")
             and not any(name.startswith("Aardvark") for name in self.names()), "the row of one")

    def test_rows_are_items_one_below_the_other_and_one_is_selected(self):
        self.write("aard")
        rows = soon(lambda: self.rows() if len(self.rows()) >= 2 else None, "two rows")
        self.assertEqual({row.get_role() for row in rows}, {Role.LIST_ITEM})
        self.assertTrue(all(has(row, State.SELECTABLE) for row in rows))
        self.assertEqual([has(row, State.SELECTED) for row in rows[:2]], [True, False])
        window, first, second = place(self.window), place(rows[0]), place(rows[1])
        self.assertTrue(contains(window, first))
        self.assertGreaterEqual(second.y, first.y + first.height)
        self.assertEqual((first.x, first.width), (second.x, second.width))

    def test_the_arrow_moves_the_selection_and_the_field_keeps_the_text(self):
        self.write("aard")
        soon(lambda: len(self.rows()) >= 2, "two rows")
        press("Down")
        soon(lambda: [has(row, State.SELECTED) for row in self.rows()[:2]] == [False, True], "the second row selected")
        press("Up")
        soon(lambda: has(self.rows()[0], State.SELECTED), "the first row selected")
        self.assertEqual(self.text(), "aard")

    def test_tabs_stand_side_by_side_and_pressing_one_selects_it(self):
        tabs = [self.tab(name) for name in ("All", "Applications", "Files", "Shortcuts")]
        lefts = [place(tab).x for tab in tabs]
        self.assertEqual(lefts, sorted(set(lefts)))
        self.assertTrue(all(contains(place(self.window), place(tab)) for tab in tabs))
        self.assertTrue(all(has(tab, State.ENABLED, State.FOCUSABLE) for tab in tabs))
        selected = [has(tab, State.SELECTED) for tab in tabs]
        self.assertEqual(selected, [True, False, False, False])
        self.assertTrue(Atspi.Action.do_action(tabs[1], 0))
        soon(lambda: has(self.tab("Applications"), State.SELECTED) and not has(self.tab("All"), State.SELECTED),
             "the tab of applications selected")
        self.assertTrue(Atspi.Action.do_action(self.tab("All"), 0))

    def test_the_button_of_the_actions_opens_their_list_and_closes_it(self):
        self.write("aardv")
        soon(lambda: self.names() and self.names()[0].startswith("Aardvark"), "the row")
        button = soon(lambda: self.named(Role.PUSH_BUTTON, "Actions"), "the button of the actions")
        window, at = place(self.window), place(button)
        self.assertTrue(contains(window, at))
        self.assertGreater(at.y - window.y, HEIGHT * 3 // 4)
        self.assertTrue(Atspi.Action.do_action(button, 0))

        listed = soon(lambda: self.named(Role.LIST, "Actions"), "the list of the actions")
        soon(lambda: self.results() is None, "the rows behind it hidden")
        actions = children(listed)
        self.assertTrue(actions)
        self.assertTrue(all(action.get_name() for action in actions))
        self.assertTrue(all(contains(window, place(action)) for action in actions))
        self.assertEqual([has(action, State.SELECTED) for action in actions].index(True), 0)
        press("Escape")
        soon(lambda: self.results() is not None, "the rows again")

    def test_nothing_that_takes_the_keyboard_is_nameless(self):
        nameless = [node.get_role_name() for node in below(self.window)
                    if has(node, State.FOCUSABLE, State.SHOWING) and not node.get_name()]
        self.assertEqual(nameless, [])

    def test_hiding_the_palette_takes_it_from_the_reader_too(self):
        press("Escape")
        soon(lambda: not has(self.window, State.SHOWING), "the window gone")
        subprocess.run([KORVANE], check=True, timeout=10)
        soon(lambda: has(self.window, State.SHOWING) and has(self.field(), State.FOCUSED), "the window back with the keyboard")


if __name__ == "__main__":
    unittest.main(verbosity=2)
