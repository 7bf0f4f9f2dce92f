"""A provider of models on the loopback and an unlocked keyring, for tests of requests to a model."""
import http.server
import json
import subprocess
import threading

KEY = "sk-marker-of-the-test"
ANSWER = "The tide is on the clipboard.\x1b[2J"


class Endpoint(http.server.BaseHTTPRequestHandler):
    """Answers each request with what `output` makes of it."""

    def do_POST(self):
        body = json.loads(self.rfile.read(int(self.headers["Content-Length"])))
        answer = json.dumps({"status": "completed", "output": self.output(body)}).encode()
        self.send_response(200)
        self.send_header("Content-Length", str(len(answer)))
        self.end_headers()
        self.wfile.write(answer)

    def log_message(self, *_):
        pass


def message(text):
    return [{"type": "message", "content": [{"type": "output_text", "text": text}]}]


def call(body, described, arguments, number=0):
    """A call of the tool whose description holds these words."""
    alias = next(tool["name"] for tool in body["tools"] if described in tool["description"])
    return [{"type": "function_call", "name": alias, "call_id": f"c{number}", "arguments": json.dumps(arguments)}]


class Provider(Endpoint):
    """Wants to list a folder, then to copy, then answers. To "wait" it answers nothing until it may go on."""

    requests = []
    may_go_on = threading.Event()

    def output(self, body):
        Provider.requests.append((self.path, self.headers["Authorization"], body))
        if body["input"][-1].get("content") == "wait":
            Provider.may_go_on.wait(60)
        kinds = [item.get("type") for item in body["input"]]
        step = kinds.count("function_call_output")
        if step == 0:
            return call(body, "from the local index", {})
        if step == 1:
            return call(body, "Replace system clipboard", {"text": "tide at noon"}, step)
        return message(ANSWER)


def start(handler=Provider):
    """Starts both and gives the variable of the environment that names the provider."""
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    subprocess.run(["gnome-keyring-daemon", "--unlock", "--components=secrets"], input=b"password", check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return {"OPENAI_BASE_URL": f"http://127.0.0.1:{server.server_port}/v1/"}
