"""An HTTP server of the test's own on 127.0.0.1, optionally with TLS: each GET is answered by the
route for its path (path -> function(handler)), each POST is recorded and answered 200."""
import http.server
import threading


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_GET(self):
        route = self.server.owner.routes.get(self.path.split("?")[0])
        if route is None:
            self.reply(404, b"not found")
        else:
            route(self)

    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"]))
        owner = self.server.owner
        with owner.changed:
            owner.posts.append((self.command, self.path, self.headers, body))
            owner.changed.notify_all()
        self.reply(200)

    def reply(self, status, body=b"", headers=()):
        self.send_response(status)
        for name, value in headers:
            self.send_header(name, value)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *args):
        pass


class LoopbackHTTP:
    def __init__(self, tls_context=None):
        self.routes = {}
        self.posts = []
        self.changed = threading.Condition()
        self.httpd = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.httpd.daemon_threads = True
        self.httpd.owner = self
        self.scheme = "http"
        if tls_context is not None:
            self.httpd.socket = tls_context.wrap_socket(self.httpd.socket, server_side=True)
            self.scheme = "https"
        threading.Thread(target=self.httpd.serve_forever, daemon=True).start()

    def url(self, path):
        return f"{self.scheme}://127.0.0.1:{self.httpd.server_address[1]}{path}"

    def wait_for_posts(self, count, timeout=60.0):
        with self.changed:
            self.changed.wait_for(lambda: len(self.posts) >= count, timeout)
            return list(self.posts)

    def close(self):
        self.httpd.shutdown()
        self.httpd.server_close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
