"""The companion asks a model: real processes, a real keyring, and a provider of the test's own on the loopback."""
import json
import os
import pathlib
import pty
import select
import signal
import sqlite3
import subprocess
import sys
import termios
import time

import provider
from provider import ANSWER, KEY, Provider


def on_terminal(tool, words, environment, answer, ahead=b""):
    """Runs it on a terminal of its own, types `ahead` before it asks and `answer` once it does; its status and what stood there."""
    process, terminal = pty.fork()
    if process == 0:
        os.execve(tool, [tool, *words], environment)
    shown = b""
    os.write(terminal, ahead)
    while select.select([terminal], [], [], 30)[0]:
        try:
            shown += os.read(terminal, 4096)
        except OSError:  # nobody is at the other end any more
            break
        if answer and b"Allow? [y/N] " in shown:
            os.write(terminal, answer)
            answer = None
    return os.waitstatus_to_exitcode(os.waitpid(process, 0)[1]), shown.decode().replace("\r\n", "\n")


def hides_typing_until_it_ends(tool, environment):
    """Ends it at the hidden input by Ctrl-C, and says whether the terminal shows what is typed before and after, and not between."""
    process, terminal = pty.fork()
    if process == 0:
        os.execve(tool, [tool, "secret", "set", "ai.openai"], environment)
    shows = lambda: bool(termios.tcgetattr(terminal)[3] & termios.ECHO)
    assert shows()
    deadline = time.monotonic() + 30
    while shows() and time.monotonic() < deadline:
        time.sleep(0.01)
    hidden = not shows()
    os.write(terminal, b"sk-half\x03")
    status = os.waitstatus_to_exitcode(os.waitpid(process, 0)[1])
    assert status == -signal.SIGINT, status
    return hidden and shows()


def main():
    tool = sys.argv[1]
    environment = dict(os.environ, **provider.start())

    def run(*words, given=""):
        ended = subprocess.run([tool, *words], input=given, capture_output=True, text=True, env=environment, timeout=30)
        assert KEY not in ended.stdout + ended.stderr, "a secret is never shown"
        return ended.returncode, ended.stdout, ended.stderr

    assert hides_typing_until_it_ends(tool, environment)
    off = "Enable AI Requests and save an API key in Settings → AI.\n"
    assert run("ask", "hello") == (1, "", off)
    assert run("settings", "set", "aiEnabled", "true") == (0, "", "")
    assert run("ask", "hello") == (1, "", "Thinking…\nAdd your API key in Settings → AI first.\n")
    assert Provider.requests == [], "nothing is sent without a key"
    assert run("secret", "set", "ai.openai", given=KEY + "\n")[0] == 0

    steps = "Thinking…\nRunning filesystem.list…\nThinking…\nRunning clipboard.write…\n"
    assert run("ask", "copy the tide") == (1, "", steps + "The operation was cancelled.\n"), "nobody has consented"
    assert len(Provider.requests) == 2, "a refusal ends the request"

    allowed = run("ask", "copy the tide", "--allow", "clipboard.write")
    assert allowed == (0, "The tide is on the clipboard.\N{REPLACEMENT CHARACTER}[2J\n", steps + "Thinking…\n"), allowed
    clipboard = subprocess.run(["xclip", "-selection", "clipboard", "-o"], capture_output=True, timeout=5).stdout
    assert clipboard == b"tide at noon", clipboard
    waiting = subprocess.Popen([tool, "ask", "wait"], env=environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    deadline = time.monotonic() + 30
    asked = len(Provider.requests)
    while len(Provider.requests) == asked and time.monotonic() < deadline:
        time.sleep(0.01)
    assert len(Provider.requests) == asked + 1, "the key is in use now"
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            given = (process / "environ").read_bytes() + (process / "cmdline").read_bytes()
        except OSError:  # it has ended, or is somebody else's
            continue
        assert KEY.encode() not in given, f"{process} shows a secret"
    waiting.terminate()
    waiting.wait(10)
    Provider.may_go_on.set()
    Provider.requests.pop()

    interrupted = on_terminal(tool, ["ask", "copy the tide"], environment, b"\x03")
    assert interrupted[0] == 1 and interrupted[1].endswith("The operation was cancelled.\n"), interrupted
    assert on_terminal(tool, ["ask", "copy the tide"], environment, b"n\n")[0] == 1
    assert on_terminal(tool, ["ask", "copy the tide"], environment, b"n\n", b"y\n")[0] == 1, "typed before the question"
    consented = on_terminal(tool, ["ask", "copy the tide"], environment, b"y\n")
    assert consented[0] == 0 and "The tide is on the clipboard." in consented[1], consented

    path, key, body = Provider.requests[-1]
    assert (path, key) == ("/v1/responses", "Bearer " + KEY)
    assert body["store"] is False and len(body["tools"]) == 11

    folder = pathlib.Path(os.environ["XDG_DATA_HOME"]) / "Korvane"
    stored = sqlite3.connect(folder / "korvane.sqlite").execute("SELECT messages FROM conversations").fetchall()
    assert [json.loads(text) for (text,) in stored] == [
        [{"role": "user", "content": "copy the tide"}, {"role": "assistant", "content": ANSWER}]] * 2, stored
    for file in folder.rglob("*"):
        assert not file.is_file() or KEY.encode() not in file.read_bytes(), f"{file} holds a secret"


main()
