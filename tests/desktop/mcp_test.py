"""The companion works with MCP servers: real processes, a real keyring, and a provider of the test's own on the loopback."""
import json
import os
import pathlib
import signal
import subprocess
import sys
import time

import provider

MARK = "KORVANE_TEST_MARK=a-server-of-this-test"
ANSWER = "The server says hello."


class Provider(provider.Endpoint):
    """Wants to call the tool of the server, then answers."""

    outputs = []

    def output(self, body):
        given = [item for item in body["input"] if item.get("type") == "function_call_output"]
        Provider.outputs += [json.loads(item["output"]) for item in given]
        return provider.message(ANSWER) if given else provider.call(body, "Works.", {"text": "from a model"})


def marked():
    """Processes of servers, by the variable that they inherit."""
    found = []
    for folder in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            if MARK.encode() in (folder / "environ").read_bytes():
                found.append(int(folder.name))
        except OSError:
            pass
    return found


def soon(truth, what):
    end = time.monotonic() + 10
    while not truth():
        assert time.monotonic() < end, what
        time.sleep(0.01)


def main():
    tool, hostile = sys.argv[1:]
    environment = dict(os.environ, **provider.start(Provider))

    def run(*words, given=""):
        ended = subprocess.run([tool, *words], input=given, capture_output=True, text=True, env=environment, timeout=30)
        return ended.returncode, ended.stdout, ended.stderr

    def add(mode):
        file = pathlib.Path(os.environ["HOME"]) / "server.json"
        name, _ = MARK.split("=")
        file.write_text(json.dumps({"id": mode, "name": mode, "command": hostile, "args": [mode],
                                    "secretEnvironment": {name: "mark"}}))
        assert run("mcp", "add", str(file)) == (0, mode + "\n", "")

    for mode in ("good", "banner", "stubborn", "stops-reading", "leaves-daemons"):
        add(mode)
    assert run("mcp", "tools", "good", "--yes") == (1, "", "A required MCP credential is missing from Keychain.\n")
    assert run("secret", "set", "mark", given=MARK.split("=")[1] + "\n")[0] == 0
    assert run("secret", "set", "ai.openai", given="sk-marker\n")[0] == 0

    # Listing and calling
    assert run("mcp", "tools", "good") == (1, "", "The operation was cancelled.\n"), "nobody has consented"
    status, out, err = run("mcp", "tools", "good", "--yes")
    assert (status, err) == (0, ""), err
    assert json.loads(out) == [{"name": "work", "description": "Works.", "inputSchema": {"type": "object"}}], out
    status, out, err = run("mcp", "call", "good", "work", '{"text":"tide 🌊"}', "--yes")
    assert (status, json.loads(out)) == (0, {"content": [{"type": "text", "text": "tide 🌊"}]}), (out, err)
    assert run("mcp", "tools", "banner", "--yes") == (1, "", "The MCP server disconnected.\n")
    for mode in ("stubborn", "leaves-daemons"):
        assert run("mcp", "call", mode, "work", '{"text":"x"}', "--yes")[0] == 0
    soon(lambda: not marked(), "nothing outlives a command")

    # A command that is killed, and one that is interrupted
    for ending, status in ((signal.SIGKILL, -signal.SIGKILL), (signal.SIGINT, 1)):
        call = subprocess.Popen([tool, "mcp", "call", "stops-reading", "work", "{}", "--yes"], env=environment,
                                stderr=subprocess.DEVNULL)
        soon(marked, "the server runs")
        time.sleep(0.3)  # whether it still connects or already calls must make no difference
        call.send_signal(ending)
        assert call.wait(timeout=10) == status
        soon(lambda: not marked(), f"nothing outlives {ending}")

    # A request to a model
    assert run("settings", "set", "aiEnabled", "true") == (0, "", "")
    refused = run("ask", "say hello", "--connect", "good")
    assert refused == (1, "", "The operation was cancelled.\n"), refused
    status, out, err = run("ask", "say hello", "--connect", "good", "--allow", "mcp.good", "--allow", "mcp.good.work")
    assert (status, out) == (0, ANSWER + "\n"), err
    assert Provider.outputs == [{"content": [{"type": "text", "text": "from a model"}]}], Provider.outputs
    soon(lambda: not marked(), "nothing outlives a request")

    listed = run("mcp", "list", "--json")[1]
    assert MARK.split("=")[1] not in listed and len(json.loads(listed)) == 5
    assert run("mcp", "remove", "good") == (0, "", "")
    assert run("mcp", "tools", "good", "--yes") == (1, "", "There is no MCP server with the identifier good.\n")


main()
