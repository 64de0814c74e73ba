#!/usr/bin/env python3
"""A local processing site: the two server scripts the dataExchange library talks to.

POST /uploadFile.php  multipart/form-data; the part named "file" is streamed to the storage
                      folder under the file name of its Content-Disposition; the answer names
                      the stored file.
POST /pushJob.php     application/x-www-form-urlencoded; the fields are recorded in the order
                      received as one JSON line in the jobs file.

Standard library only. See README.md beside this file.
"""

import argparse
import json
import os
import signal
import socket
import ssl
import struct
import sys
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import parse_qsl

UPLOAD_SCRIPT = "uploadFile.php"
JOB_SCRIPT = "pushJob.php"
SCRIPT_ALIASES = {"upload": UPLOAD_SCRIPT, "job": JOB_SCRIPT,
                  UPLOAD_SCRIPT: UPLOAD_SCRIPT, JOB_SCRIPT: JOB_SCRIPT}
CHUNK = 1 << 20


class BadRequest(Exception):
    """The request cannot be handled; the text goes back to the client with status 400."""


class DropConnection(Exception):
    """The client went away or sent less than it announced."""


def header_parameters(value):
    """Splits 'type; a=1; b="x;y"' into ('type', {'a': '1', 'b': 'x;y'}); quotes may hold ';'."""
    items, current, quoted, escaped = [], [], False, False
    for ch in value:
        if escaped:
            current.append(ch)
            escaped = False
        elif quoted and ch == "\\":
            current.append(ch)
            escaped = True
        elif ch == '"':
            current.append(ch)
            quoted = not quoted
        elif ch == ";" and not quoted:
            items.append("".join(current))
            current = []
        else:
            current.append(ch)
    items.append("".join(current))
    params = {}
    for item in items[1:]:
        name, sep, raw = item.strip().partition("=")
        if not sep:
            continue
        raw = raw.strip()
        if len(raw) >= 2 and raw[0] == raw[-1] == '"':
            raw = raw[1:-1].replace('\\"', '"').replace("\\\\", "\\")
        params[name.strip().lower()] = raw
    return items[0].strip().lower(), params


class BodyReader:
    """Reads exactly the announced number of body bytes, a chunk at a time."""

    def __init__(self, stream, length):
        self.stream = stream
        self.left = length

    def read(self):
        if self.left == 0:
            return b""
        data = self.stream.read1(min(CHUNK, self.left))
        if not data:
            raise DropConnection()
        self.left -= len(data)
        return data

    def drain(self):
        while self.read():
            pass


class MultipartParser:
    """Streams a multipart body part by part without holding a part's content in memory.

    For each part, `open_part(headers)` returns a sink with write() and close(), or None to
    discard the content. The delimiter is searched in a sliding buffer; everything that cannot
    be the beginning of a delimiter goes to the sink at once.
    """

    def __init__(self, reader, boundary):
        self.reader = reader
        self.delimiter = b"\r\n--" + boundary
        self.buffer = bytearray(b"\r\n")  # the first delimiter has no line break before it

    def _next_chunk(self):
        data = self.reader.read()
        if not data:
            raise BadRequest("multipart body ends before its closing delimiter")
        return data

    def _fill(self):
        self.buffer += self._next_chunk()

    @staticmethod
    def _pass_on(sink, data, count):
        if sink is not None and count > 0:
            with memoryview(data) as view:
                sink.write(view[:count])

    def _skip_to_delimiter(self, sink):
        """Passes the content up to the next delimiter to the sink and consumes the delimiter.

        Chunks without a delimiter go to the sink without being copied into the buffer; only
        the bytes that may begin a delimiter are carried over to the next chunk.
        """
        keep = len(self.delimiter) - 1
        while True:
            at = self.buffer.find(self.delimiter)
            if at >= 0:
                self._pass_on(sink, self.buffer, at)
                del self.buffer[:at + len(self.delimiter)]
                return
            cut = max(0, len(self.buffer) - keep)
            self._pass_on(sink, self.buffer, cut)
            del self.buffer[:cut]
            data = self._next_chunk()
            seam = self.buffer + data[:keep]
            if len(data) <= keep or self.delimiter in seam or self.delimiter in data:
                self.buffer += data  # found, or too short to decide: the loop's search settles it
                continue
            self._pass_on(sink, self.buffer, len(self.buffer))
            self._pass_on(sink, data, len(data) - keep)
            self.buffer = bytearray(data[len(data) - keep:])

    def _read_until(self, marker, limit):
        while True:
            at = self.buffer.find(marker)
            if at >= 0:
                text = bytes(self.buffer[:at])
                del self.buffer[:at + len(marker)]
                return text
            if len(self.buffer) > limit:
                raise BadRequest("multipart part headers too long")
            self._fill()

    def _at_final_delimiter(self):
        while len(self.buffer) < 2:
            self._fill()
        if self.buffer[:2] == b"--":
            return True
        self._read_until(b"\r\n", 1024)  # transport padding after the delimiter
        return False

    def _read_headers(self):
        while len(self.buffer) < 2:
            self._fill()
        if self.buffer.startswith(b"\r\n"):  # a part without headers
            del self.buffer[:2]
            return {}
        headers = {}
        for line in self._read_until(b"\r\n\r\n", 65536).split(b"\r\n"):
            name, _, value = line.decode("utf-8", "replace").partition(":")
            headers[name.strip().lower()] = value.strip()
        return headers

    def parse(self, open_part):
        self._skip_to_delimiter(None)
        while not self._at_final_delimiter():
            sink = open_part(self._read_headers())
            try:
                self._skip_to_delimiter(sink)
            finally:
                if sink is not None:
                    sink.close()
        self.reader.drain()  # epilogue


class CountingSink:
    def __init__(self, target=None):
        self.target = target
        self.size = 0

    def write(self, data):
        self.size += len(data)
        if self.target is not None:
            self.target.write(data)

    def close(self):
        if self.target is not None:
            self.target.close()


def bare_file_name(name):
    """The last path component, so that a client cannot write outside the storage folder."""
    name = name.replace("\\", "/").rsplit("/", 1)[-1]
    return "upload.bin" if name in ("", ".", "..") else name


class Site:
    def __init__(self, args):
        self.root = os.path.abspath(args.root)
        self.storage = os.path.join(self.root, "storage")
        self.jobs_file = os.path.join(self.root, "jobs.jsonl")
        self.uploads_file = os.path.join(self.root, "uploads.jsonl")
        self.status = dict(args.status)
        self.empty_body = set(args.empty_body)
        self.answers = dict(args.answer)
        self.delay = dict(args.delay)
        self.close = set(args.close)
        # script -> [kind, requests left]: the first requests of a script meet a fault.
        self.faults = {script: [kind, count] for script, (kind, count) in args.fault}
        self.requests_file = os.path.join(self.root, "requests.jsonl")
        self.quiet = args.quiet
        self.lock = threading.Lock()
        os.makedirs(self.storage, exist_ok=True)

    def take_fault(self, script):
        """The fault this request of the script meets, if any; every request is logged."""
        with self.lock:
            fault = self.faults.get(script)
            kind = None
            if fault and fault[1] > 0:
                fault[1] -= 1
                kind = fault[0]
        self.record(self.requests_file, {"script": script, "fault": kind})
        return kind

    def record(self, path, entry):
        line = json.dumps(entry, ensure_ascii=False) + "\n"
        with self.lock, open(path, "a", encoding="utf-8") as out:
            out.write(line)

    def create_stored_file(self, file_name):
        """Opens a new file in the storage folder; an existing name gets a counter appended."""
        stem, dot, ext = file_name.rpartition(".")
        if not dot or not stem:
            stem, ext = file_name, ""
        candidate, n = file_name, 0
        with self.lock:
            while True:
                path = os.path.join(self.storage, candidate)
                try:
                    return candidate, open(path, "xb")
                except FileExistsError:
                    n += 1
                    candidate = "%s-%d%s" % (stem, n, "." + ext if ext else "")


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "ProcessingSite/1.0"

    def log_message(self, fmt, *args):
        if not self.server.site.quiet:
            sys.stderr.write("processing-site: %s %s\n" % (self.address_string(), fmt % args))

    def do_GET(self):
        self.answer(404, "Only POST to /%s and /%s\n" % (UPLOAD_SCRIPT, JOB_SCRIPT))

    def do_POST(self):
        script = self.path.split("?", 1)[0].lstrip("/")
        length = self.headers.get("Content-Length")
        if length is None or not length.isdigit():
            self.close_connection = True
            self.answer(411, "Content-Length required\n")
            return
        body = BodyReader(self.rfile, int(length))
        fault = self.server.site.take_fault(script)
        if fault == "busy":
            body.drain()
            self.answer(503, "Busy, come back later\n", {"Retry-After": "1"})
            return
        if fault in ("reset", "cut"):
            half = body.left // 2
            while fault == "cut" and body.left > half:  # half the body, then gone
                data = body.stream.read1(min(CHUNK, body.left - half))
                if not data:
                    break
                body.left -= len(data)
            self.reset()
            return
        try:
            if script == UPLOAD_SCRIPT:
                status, text = self.upload(body)
            elif script == JOB_SCRIPT:
                status, text = self.push_job(body)
            else:
                body.drain()
                status, text = 404, "No script /%s\n" % script
        except BadRequest as problem:
            self.close_connection = True
            status, text = 400, str(problem) + "\n"
        except DropConnection:
            self.close_connection = True
            return
        self.finish_faulty(script, status, text, fault == "close")

    def reset(self):
        """Ends the connection with a reset, as a crashing server or a broken link does."""
        self.close_connection = True
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.connection.close()

    def finish_faulty(self, script, status, text, close=False):
        """Answers, bent by the fault switches of the script."""
        site = self.server.site
        if script in site.delay:
            time.sleep(site.delay[script])
        if close or script in site.close:
            self.close_connection = True
            self.connection.shutdown(socket.SHUT_RDWR)
            return
        if status == 200 and script in site.status:
            status = site.status[script]
        if script in site.empty_body:
            text = ""
        if script in site.answers:
            text = site.answers[script]
        self.answer(status, text)

    def answer(self, status, text, headers=None):
        data = text if isinstance(text, bytes) else text.encode("utf-8")
        self.send_response(status)
        for name, value in (headers or {}).items():
            self.send_header(name, value)
        self.send_header("Content-Type", "text/plain; charset=utf-8")
        self.send_header("Content-Length", str(len(data)))
        if self.close_connection:
            self.send_header("Connection", "close")
        self.end_headers()
        self.wfile.write(data)

    def upload(self, body):
        site = self.server.site
        content_type = self.headers.get("Content-Type", "")
        kind, params = header_parameters(content_type)
        if kind != "multipart/form-data" or not params.get("boundary"):
            body.drain()
            raise BadRequest("expected multipart/form-data with a boundary")
        parts = []

        def open_part(headers):
            disposition = headers.get("content-disposition", "")
            _, fields = header_parameters(disposition)
            part = {"name": fields.get("name"), "filename": fields.get("filename"),
                    "content_type": headers.get("content-type"), "disposition": disposition,
                    "stored": None}
            target = None
            if part["name"] == "file":
                stored_name, target = site.create_stored_file(
                    bare_file_name(part["filename"] or ""))
                part["stored"] = stored_name
            sink = CountingSink(target)
            part["sink"] = sink
            parts.append(part)
            return sink

        MultipartParser(body, params["boundary"].encode("latin-1")).parse(open_part)
        for part in parts:
            part["size"] = part.pop("sink").size
        stored = [p["stored"] for p in parts if p["stored"] is not None]
        status = 200 if stored else 400
        site.record(site.uploads_file, {
            "content_type": content_type, "content_length": int(self.headers["Content-Length"]),
            "user_agent": self.headers.get("User-Agent"), "parts": parts, "status": status})
        if not stored:
            raise BadRequest('no part named "file"')
        return 200, stored[0]

    def push_job(self, body):
        site = self.server.site
        raw = bytearray()
        while True:
            data = body.read()
            if not data:
                break
            raw += data
        text = raw.decode("utf-8", "replace")
        fields = parse_qsl(text, keep_blank_values=True, encoding="utf-8", errors="replace")
        site.record(site.jobs_file, {
            "content_type": self.headers.get("Content-Type"), "body": text,
            "fields": [[name, value] for name, value in fields]})
        return 200, "Job queued\n"


class Server(ThreadingHTTPServer):
    daemon_threads = True

    def __init__(self, site, port, tls):
        self.site = site
        self.tls = tls
        super().__init__(("127.0.0.1", port), Handler)

    def get_request(self):
        connection, address = super().get_request()
        if self.tls is not None:
            # The handshake runs on the request's own thread, so a client that rejects the
            # certificate does not hold up the accepting thread.
            connection = self.tls.wrap_socket(connection, server_side=True,
                                              do_handshake_on_connect=False)
        return connection, address

    def handle_error(self, request, client_address):
        problem = sys.exc_info()[1]
        if not self.site.quiet or not isinstance(problem, (OSError, ssl.SSLError)):
            sys.stderr.write("processing-site: %s: %r\n" % (client_address[0], problem))


def write_config(folder, port, https):
    os.makedirs(folder, exist_ok=True)
    text = ("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<Configuration>\n"
            "    <Server>\n"
            "        <Name>127.0.0.1:%d</Name>\n"
            "        <Protocol>%s</Protocol>\n"
            "        <Port>%d</Port>\n"
            "        <Timeout>30</Timeout>\n"
            "    </Server>\n"
            "</Configuration>\n") % (port, "https" if https else "http", port)
    with open(os.path.join(folder, "config.xml"), "w", encoding="utf-8") as out:
        out.write(text)


def script_value(text, convert):
    script, sep, value = text.partition("=")
    if script not in SCRIPT_ALIASES or not sep:
        raise argparse.ArgumentTypeError("expected upload=VALUE or job=VALUE, got %r" % text)
    return SCRIPT_ALIASES[script], convert(value)


def fault_value(text):
    kind, sep, count = text.partition(":")
    if kind not in ("busy", "reset", "cut", "close") or not sep or not count.isdigit():
        raise argparse.ArgumentTypeError("expected busy|reset|cut|close:N, got %r" % text)
    return kind, int(count)


def script_name(text):
    if text not in SCRIPT_ALIASES:
        raise argparse.ArgumentTypeError("expected upload or job, got %r" % text)
    return SCRIPT_ALIASES[text]


def parse_arguments(argv):
    parser = argparse.ArgumentParser(description="Local processing site for dataExchange.")
    parser.add_argument("--port", type=int, default=0, help="port on 127.0.0.1 (0: any free)")
    parser.add_argument("--root", default=".",
                        help="folder for storage/, uploads.jsonl and jobs.jsonl (default: .)")
    parser.add_argument("--cert", help="PEM certificate (chain): serve HTTPS")
    parser.add_argument("--key", help="PEM private key of --cert")
    parser.add_argument("--write-config", metavar="DIR",
                        help="write DIR/config.xml that points at this site")
    parser.add_argument("--status", action="append", default=[], metavar="SCRIPT=CODE",
                        type=lambda t: script_value(t, int),
                        help="answer CODE instead of 200 (SCRIPT: upload or job)")
    parser.add_argument("--empty-body", action="append", default=[], metavar="SCRIPT",
                        type=script_name, help="answer with an empty body")
    parser.add_argument("--answer", action="append", default=[], metavar="SCRIPT=TEXT",
                        type=lambda t: script_value(
                            t, lambda v: v.encode("utf-8").decode("unicode_escape")
                            .encode("latin-1")),
                        help="answer these bytes (Python escapes: \\x1b, \\xff) instead")
    parser.add_argument("--delay", action="append", default=[], metavar="SCRIPT=SECONDS",
                        type=lambda t: script_value(t, float),
                        help="wait before answering")
    parser.add_argument("--close", action="append", default=[], metavar="SCRIPT",
                        type=script_name,
                        help="read the request, then close the connection without answering")
    parser.add_argument("--fault", action="append", default=[], metavar="SCRIPT=KIND:N",
                        type=lambda t: script_value(t, fault_value),
                        help="the first N requests of the script meet a fault: busy (503 with "
                             "Retry-After: 1), reset (the connection reset before reading), cut "
                             "(reset after half the body), close (handled, then closed without "
                             "an answer); every request is logged in requests.jsonl")
    parser.add_argument("--quiet", action="store_true", help="no request log on stderr")
    parser.add_argument("--watch-stdin", action="store_true",
                        help="stop when standard input closes (a parent that dies ends the site)")
    args = parser.parse_args(argv)
    if bool(args.cert) != bool(args.key):
        parser.error("--cert and --key go together")
    return args


def main(argv):
    args = parse_arguments(argv)
    tls = None
    if args.cert:
        tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        tls.load_cert_chain(args.cert, args.key)
    server = Server(Site(args), args.port, tls)
    port = server.server_address[1]
    if args.write_config:
        write_config(args.write_config, port, tls is not None)

    def stop(*_):
        raise SystemExit(0)

    signal.signal(signal.SIGTERM, stop)
    if args.watch_stdin:
        def watch():
            # The raw descriptor: a buffered reader's lock would stall the interpreter's exit.
            while os.read(sys.stdin.fileno(), 4096):
                pass
            os.kill(os.getpid(), signal.SIGTERM)
        threading.Thread(target=watch, daemon=True).start()
    print(port, flush=True)
    try:
        server.serve_forever()
    except KeyboardInterrupt:
        pass
    finally:
        server.server_close()
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
