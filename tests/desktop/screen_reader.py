"""What a screen reader sees of a program, from outside. Every wait looks again until a deadline."""
import time

import gi

gi.require_version("Atspi", "2.0")
from gi.repository import Atspi  # noqa: E402


def soon(truth, what):
    """What `truth` gives as soon as it gives something."""
    deadline = time.monotonic() + 10
    while time.monotonic() < deadline:
        try:
            if found := truth():
                return found
        except gi.repository.GLib.Error:
            pass  # what was looked at has just gone
        time.sleep(0.02)
    raise AssertionError("not within ten seconds: " + what)


def children(node):
    return [child for child in map(node.get_child_at_index, range(node.get_child_count())) if child is not None]


def below(node, depth=0):
    for child in children(node) if depth < 12 else []:
        yield child
        yield from below(child, depth + 1)


def has(node, *states):
    held = node.get_state_set()
    return all(held.contains(state) for state in states)


def find_program(process):
    desktop = Atspi.get_desktop(0)
    return next((child for child in children(desktop) if child.get_process_id() == process.pid), None)
