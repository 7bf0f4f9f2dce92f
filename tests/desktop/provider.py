"""A provider of models on the loopback and an unlocked keyring, for tests of requests to a model."""
import http.server
import json
import subprocess
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


def start():
    """Starts both and gives the variable of the environment that names the provider."""
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Provider)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    subprocess.run(["gnome-keyring-daemon", "--unlock", "--components=secrets"], input=b"password", check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return {"OPENAI_BASE_URL": f"http://127.0.0.1:{server.server_port}/v1/"}
