#!/usr/bin/env python3
"""A libnice stand-in for the device's "/sg/sessions", to check a network or
the client without ferrule, and to time libnice against libnice:

    nice_device.py --listen ADDR:PORT --tool ferrule-p2pclient [-- TOOL OPTIONS]

Each POST to a path ending in /sg/sessions starts `ferrule-p2pclient
--answer` with the body on its standard input and answers 201 with the
description it prints; the agent then runs the checks as the controlling
side, as the device would. Its later output (the selected-pair line) is
copied to standard output. Run it inside the device's namespace."""
import argparse
import subprocess
import sys
import threading
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

ANSWER_TIMEOUT = 30


class StandIn(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    tool_argv = []

    def do_POST(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", "0")))
        if not self.path.endswith("/sg/sessions"):
            return self.answer(404, b"")
        agent = subprocess.Popen(self.tool_argv + ["--answer"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                 text=True)
        agent.stdin.write(body.decode())
        agent.stdin.close()
        description = []
        timer = threading.Timer(ANSWER_TIMEOUT, agent.kill)
        timer.start()
        for line in agent.stdout:
            if not line.strip():
                break
            description.append(line)
        timer.cancel()
        if not description:
            agent.wait()
            return self.answer(500, b"")
        self.answer(201, "".join(description).encode())
        threading.Thread(target=self.copy_rest, args=(agent,), daemon=True).start()

    @staticmethod
    def copy_rest(agent):
        for line in agent.stdout:
            sys.stdout.write(line)
            sys.stdout.flush()
        agent.wait()

    def answer(self, status, body):
        self.send_response(status)
        self.send_header("Content-Type", "text/plain")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *args):
        pass


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--listen", required=True, help="ADDR:PORT")
    parser.add_argument("--tool", required=True, help="ferrule-p2pclient")
    parser.add_argument("tool_options", nargs="*")
    args = parser.parse_args()
    host, port = args.listen.rsplit(":", 1)
    StandIn.tool_argv = [args.tool] + args.tool_options
    server = ThreadingHTTPServer((host.strip("[]"), int(port)), StandIn)
    print("listening on %s" % args.listen, flush=True)
    server.serve_forever()


if __name__ == "__main__":
    main()
