#!/usr/bin/env python3
"""A private git server over HTTP for tests: serves the bare repositories
under ROOT through `git http-backend`, and only to a client that presents
USER:PASSWORD by Basic authentication. Prints its port, then serves until
killed. Every Authorization header it sees is appended to ROOT/auth.log, so
a test can tell what the client sent.

usage: git_http_server.py ROOT USER PASSWORD
"""
import base64
import http.server
import os
import re
import subprocess
import sys

root, user, password = sys.argv[1:4]
expected = "Basic " + base64.b64encode(f"{user}:{password}".encode()).decode()


class Handler(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        self.serve()

    def do_POST(self):
        self.serve()

    def log_message(self, *args):
        pass

    def serve(self):
        given = self.headers.get("Authorization")
        if given:
            with open(os.path.join(root, "auth.log"), "a") as log:
                log.write(given + "\n")
        if given != expected:
            self.send_response(401)
            self.send_header("WWW-Authenticate", 'Basic realm="git"')
            self.send_header("Content-Length", "0")
            self.end_headers()
            return
        path, _, query = self.path.partition("?")
        env = dict(os.environ, GIT_PROJECT_ROOT=root, GIT_HTTP_EXPORT_ALL="1",
                   PATH_INFO=path, QUERY_STRING=query, REQUEST_METHOD=self.command,
                   CONTENT_TYPE=self.headers.get("Content-Type", ""), REMOTE_USER=user)
        if self.headers.get("Content-Encoding"):
            env["HTTP_CONTENT_ENCODING"] = self.headers["Content-Encoding"]
        if self.headers.get("Git-Protocol"):
            env["GIT_PROTOCOL"] = self.headers["Git-Protocol"]
        body = b""
        if self.headers.get("Transfer-Encoding", "").lower() == "chunked":
            while True:
                size = int(self.rfile.readline().strip(), 16)
                if size == 0:
                    self.rfile.readline()
                    break
                body += self.rfile.read(size)
                self.rfile.readline()
        elif self.headers.get("Content-Length"):
            body = self.rfile.read(int(self.headers["Content-Length"]))
        output = subprocess.run(["git", "http-backend"], input=body, env=env,
                                capture_output=True).stdout
        head, _, payload = re.split(rb"(\r?\n\r?\n)", output, maxsplit=1) if re.search(
            rb"\r?\n\r?\n", output) else (output, b"", b"")
        status = 200
        headers = []
        for line in re.split(rb"\r?\n", head):
            name, _, value = line.decode().partition(":")
            if name.lower() == "status":
                status = int(value.split()[0])
            elif name:
                headers.append((name, value.strip()))
        self.send_response(status)
        for name, value in headers:
            self.send_header(name, value)
        self.send_header("Content-Length", str(len(payload)))
        self.end_headers()
        self.wfile.write(payload)


server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
print(server.server_address[1], flush=True)
server.serve_forever()
