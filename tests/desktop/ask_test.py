"""The companion asks a model: real processes, a real keyring, and a provider of this file on the loopback."""
import http.server
import json
import os
import pathlib
import sqlite3
import subprocess
import sys
import threading

KEY = "sk-marker-of-the-test"
ANSWER = "The tide is on the clipboard.\x1b[2J"


class Provider(http.server.BaseHTTPRequestHandler):
    """Wants to list a folder, then to copy, then answers."""

    requests = []

    def do_POST(self):
        body = json.loads(self.rfile.read(int(self.headers["Content-Length"])))
        Provider.requests.append((self.path, self.headers["Authorization"], body))
        kinds = [item.get("type") for item in body["input"]]
        step = kinds.count("function_call_output")
        if step < 2:
            wanted = ("from the local index", "Replace system clipboard")[step]
            alias = next(tool["name"] for tool in body["tools"] if wanted in tool["description"])
            arguments = json.dumps({"text": "tide at noon"} if step else {})
            output = [{"type": "function_call", "name": alias, "call_id": f"c{step}", "arguments": arguments}]
        else:
            output = [{"type": "message", "content": [{"type": "output_text", "text": ANSWER}]}]
        answer = json.dumps({"status": "completed", "output": output}).encode()
        self.send_response(200)
        self.send_header("Content-Length", str(len(answer)))
        self.end_headers()
        self.wfile.write(answer)

    def log_message(self, *_):
        pass


def main():
    tool = sys.argv[1]
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Provider)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    environment = dict(os.environ, OPENAI_BASE_URL=f"http://127.0.0.1:{server.server_port}/v1/")
    subprocess.run(["gnome-keyring-daemon", "--unlock", "--components=secrets"], input=b"password", check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def run(*words, given=""):
        ended = subprocess.run([tool, *words], input=given, capture_output=True, text=True, env=environment, timeout=30)
        assert KEY not in ended.stdout + ended.stderr, "a secret is never shown"
        return ended.returncode, ended.stdout, ended.stderr

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
    path, key, body = Provider.requests[-1]
    assert (path, key) == ("/v1/responses", "Bearer " + KEY)
    assert body["store"] is False and len(body["tools"]) == 11

    folder = pathlib.Path(os.environ["XDG_DATA_HOME"]) / "Korvane"
    stored = sqlite3.connect(folder / "korvane.sqlite").execute("SELECT messages FROM conversations").fetchall()
    assert [json.loads(text) for (text,) in stored] == [
        [{"role": "user", "content": "copy the tide"}, {"role": "assistant", "content": ANSWER}]], stored
    for file in folder.rglob("*"):
        assert not file.is_file() or KEY.encode() not in file.read_bytes(), f"{file} holds a secret"


main()
