"""Progress of korvanectl's index commands: on a terminal of its own, and into pipes. Real processes and files."""
import os
import pathlib
import pty
import re
import select
import subprocess
import sys
import tempfile


def on_terminal(tool, words, environment):
    """Runs it on a terminal and gives its status and what stood there."""
    process, terminal = pty.fork()
    if process == 0:
        os.execve(tool, [tool, *words], environment)
    shown = b""
    while select.select([terminal], [], [], 60)[0]:
        try:
            shown += os.read(terminal, 4096)
        except OSError:  # nobody is at the other end any more
            break
    return os.waitstatus_to_exitcode(os.waitpid(process, 0)[1]), shown.decode()


def main():
    tool = sys.argv[1]
    with tempfile.TemporaryDirectory() as folder:
        home = pathlib.Path(folder) / "home"
        for i in range(200):
            (home / f"folder {i}").mkdir(parents=True)
            for k in range(100):
                (home / f"folder {i}" / f"notes of day {k}.txt").touch()
        environment = {"HOME": str(home), "LANG": "C.UTF-8", "PATH": os.environ["PATH"]}
        roots = subprocess.run([tool, "index", "rebuild"], capture_output=True, text=True, env=environment, timeout=60)
        assert (roots.returncode, roots.stdout, roots.stderr) == (0, "", ""), "no progress in a pipe"

        status, shown = on_terminal(tool, ["index", "rebuild"], environment)
        assert status == 0 and shown.endswith("\r\x1b[K"), "the line is cleared at the end"
        lines = shown.split("\r\x1b[K")
        assert any(re.fullmatch(r"[0-9,]+ · [0-9,]+/s · /.*", line) for line in lines), lines


main()
