"""A server that misbehaves to order, over TLS with HTTP/2 (or HTTP/1.1 where that is agreed on).

usage: h2_peer.py CONTROL_PORT

Connects to the test on CONTROL_PORT of 127.0.0.1 and obeys one line at a time, answering each with one:
  arm SCRIPT CERT KEY   a new listener that treats every connection by SCRIPT; answers its port
  behave CERT KEY       from now on every request is answered 200 {} on a connection that then ends
  disarm                ends listener and connections; answers how many requests arrived
SCRIPT is NAME or NAME:ARG:ARG... with ARGs of hexadecimal or decimal digits. Ends with the control
connection.
"""

import os
import socket
import ssl
import struct
import sys
import threading

import h2.config
import h2.connection
import h2.events

DATA, HEADERS, PRIORITY, RST, SETTINGS, PUSH, PING, GOAWAY, WINDOW, CONTINUATION = range(10)
END_STREAM, ACK, END_HEADERS, PADDED = 1, 1, 4, 8
LAST_STREAM = 0x7FFFFFFF


class Gone(Exception):
    """The connection has ended, or the script has ended it."""


def frame(kind, flags, stream, payload=b"", length=None):
    size = len(payload) if length is None else length
    return struct.pack(">I", size)[1:] + struct.pack(">BBI", kind, flags, stream) + payload


def settings(*pairs):
    return frame(SETTINGS, 0, 0, b"".join(struct.pack(">HI", key, value) for key, value in pairs))


def goaway(last, code=0, debug=b""):
    return frame(GOAWAY, 0, 0, struct.pack(">II", last, code) + debug)


def rst(stream, code):
    return frame(RST, 0, stream, struct.pack(">I", code))


class Tls:
    """TLS over a socket with the records in our hands, so that a handshake can be cut anywhere."""

    def __init__(self, sock, context):
        self.sock = sock
        self.incoming = ssl.MemoryBIO()
        self.outgoing = ssl.MemoryBIO()
        self.tls = context.wrap_bio(self.incoming, self.outgoing, server_side=True)

    def _flush(self, limit=None):
        data = self.outgoing.read()
        if limit is not None:
            self.sock.sendall(data[:limit])
            raise Gone
        self.sock.sendall(data)

    def _receive(self):
        data = self.sock.recv(65536)
        if not data:
            raise Gone
        self.incoming.write(data)

    def handshake(self, limit=None):
        """With `limit`, the server's first flight is cut after so many bytes."""
        while True:
            try:
                self.tls.do_handshake()
                self._flush()
                return
            except ssl.SSLWantReadError:
                if self.outgoing.pending:
                    self._flush(limit)
                self._receive()
            except ssl.SSLError:
                self._flush()
                raise

    def read(self):
        while True:
            try:
                data = self.tls.read(65536)
                if not data:
                    raise Gone
                return data
            except ssl.SSLWantReadError:
                self._receive()
            except ssl.SSLError:
                raise Gone

    def write(self, data):
        for at in range(0, len(data), 1 << 18):
            self.tls.write(data[at:at + (1 << 18)])
            self._flush()

    def say_goodbye(self):
        try:
            self.tls.unwrap()
        except ssl.SSLError:
            pass
        self._flush()


class Http2:
    """The well-behaved half: reads requests. What a script answers goes out as raw frames."""

    def __init__(self, tls, peer):
        self.tls = tls
        self.peer = peer
        self.stream = 0
        self.conn = h2.connection.H2Connection(config=h2.config.H2Configuration(
            client_side=False, header_encoding=None, validate_inbound_headers=False,
            validate_outbound_headers=False, normalize_outbound_headers=False))
        self.done = []
        self.dropped = set()  # Streams that were ended before their requests had.

    def start(self, first=b""):
        """Our preface: `first` in the place of the usual SETTINGS, if given."""
        self.conn.initiate_connection()
        usual = self.conn.data_to_send()
        self.tls.write(first or usual)

    def pump(self):
        """Reads once; answers the names of what came."""
        seen = []
        for event in self.conn.receive_data(self.tls.read()):
            if isinstance(event, h2.events.RequestReceived):
                self.stream = event.stream_id
                seen.append("headers")
            elif isinstance(event, h2.events.DataReceived):
                if event.flow_controlled_length:
                    self.conn.acknowledge_received_data(event.flow_controlled_length, event.stream_id)
                seen.append("data")
            elif isinstance(event, h2.events.StreamEnded):
                self.done.append(event.stream_id)
            elif isinstance(event, h2.events.StreamReset):
                self.dropped.add(event.stream_id)
            elif isinstance(event, h2.events.ConnectionTerminated):
                raise Gone
        out = self.conn.data_to_send()
        if out:
            self.tls.write(out)
        return seen

    def request(self):
        """Waits for a whole request."""
        while not self.done:
            self.pump()
            self.done = [stream for stream in self.done if stream not in self.dropped]
        self.stream = self.done.pop(0)
        self.peer.count_request()

    def until(self, what):
        while what not in self.pump():
            pass

    def raw(self, *frames):
        self.tls.write(b"".join(frames))

    def pack(self, headers):
        return self.conn.encoder.encode([(n.encode("latin-1"), v.encode("latin-1")) for n, v in headers])

    def headers(self, status="200", more=(), flags=END_HEADERS, stream=None):
        fields = ([] if status is None else [(":status", status)]) + list(more)
        return frame(HEADERS, flags, stream or self.stream, self.pack(fields))

    def data(self, payload=b"", flags=END_STREAM, stream=None):
        return frame(DATA, flags, stream or self.stream, payload)

    def send_body(self, body):
        """In frames of the size that every client takes."""
        pieces = [body[at:at + 16384] for at in range(0, len(body), 16384)] or [b""]
        for piece in pieces[:-1]:
            self.raw(self.data(piece, 0))
        self.raw(self.data(pieces[-1]))

    def answer_well(self):
        # GOAWAY first: the client then closes the connection with this answer.
        self.raw(goaway(self.stream), self.headers(more=[("content-length", "2")]), self.data(b"{}"))

    def hold(self):
        """Reads and answers nothing until the client or the test ends it."""
        while True:
            self.tls.read()


class Http1:
    """One request at a time, as bytes."""

    def __init__(self, tls, peer):
        self.tls = tls
        self.peer = peer
        self.unread = b""

    def request(self):
        while b"\r\n\r\n" not in self.unread:
            self.unread += self.tls.read()
        head, self.unread = self.unread.split(b"\r\n\r\n", 1)
        size = 0
        for line in head.lower().split(b"\r\n"):
            if line.startswith(b"content-length:"):
                size = int(line.split(b":")[1])
        while len(self.unread) < size:
            self.unread += self.tls.read()
        self.unread = self.unread[size:]
        self.peer.count_request()

    def answer_well(self):
        body = self.peer.http1_body
        self.tls.write(b"HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: %d\r\n\r\n" % len(body)
                       + body)


TCP, TLS, OPENING, REQUEST = {}, {}, {}, {}


def script(stage):
    def enter(function):
        stage[function.__name__] = function
        return function
    return enter


# ---- As soon as TCP stands: f(peer, sock, *args) ------------------------------------------------------

@script(TCP)
def tcp_close(peer, sock):
    pass


@script(TCP)
def tcp_reset(peer, sock):
    sock.recv(1)
    peer.reset(sock)


@script(TCP)
def tcp_bytes(peer, sock, text):
    sock.recv(65536)
    sock.sendall(bytes.fromhex(text))


@script(TCP)
def tcp_garbage(peer, sock):
    sock.recv(65536)
    sock.sendall(os.urandom(4096))


@script(TCP)
def tcp_hold(peer, sock):
    while sock.recv(65536):
        pass


# ---- The TLS handshake: f(peer, sock, context, *args); a Tls that is returned goes on ------------------

@script(TLS)
def tls_cut(peer, sock, context, size):
    Tls(sock, context).handshake(int(size))


@script(TLS)
def tls_cut_reset(peer, sock, context, size):
    try:
        Tls(sock, context).handshake(int(size))
    finally:
        peer.reset(sock)


@script(TLS)
def tls_cut_hold(peer, sock, context, size):
    try:
        Tls(sock, context).handshake(int(size))
    except Gone:
        tcp_hold(peer, sock)


@script(TLS)
def tls_old(peer, sock, context):
    context.minimum_version = ssl.TLSVersion.TLSv1
    context.maximum_version = ssl.TLSVersion.TLSv1_1
    context.set_ciphers("ALL:@SECLEVEL=0")
    return go(Tls(sock, context))


@script(TLS)
def tls_wants_certificate(peer, sock, context):
    context.verify_mode = ssl.CERT_REQUIRED
    return go(Tls(sock, context))


@script(TLS)
def tls_other_ciphers(peer, sock, context):
    context.maximum_version = ssl.TLSVersion.TLSv1_2
    context.set_ciphers("AES128-SHA:@SECLEVEL=0")  # An RSA suite, and our key is none.
    return go(Tls(sock, context))


@script(TLS)
def tls_close_after(peer, sock, context):
    go(Tls(sock, context))


@script(TLS)
def tls_goodbye_after(peer, sock, context):
    go(Tls(sock, context)).say_goodbye()


@script(TLS)
def tls_garbage_after(peer, sock, context):
    go(Tls(sock, context))
    sock.sendall(b"\x17\x03\x03\x01\x00" + os.urandom(256))


@script(TLS)
def tls_alert_after(peer, sock, context, level, code):
    tls = go(Tls(sock, context))
    sock.sendall(b"\x15\x03\x03\x00\x02" + bytes([int(level), int(code)]))
    tls.read()


@script(TLS)
def tls_plain_after(peer, sock, context):
    go(Tls(sock, context))
    sock.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}")


@script(TLS)
def tls_1_2(peer, sock, context):
    context.maximum_version = ssl.TLSVersion.TLSv1_2
    return go(Tls(sock, context))


@script(TLS)
def tls_no_protocol(peer, sock, context):
    """Speaks HTTP/1.1 to whoever offers HTTP/2, and agrees on nothing."""
    return go(Tls(sock, ssl_context(peer.certificate, [])))


@script(TLS)
def tls_only_http1(peer, sock, context):
    return go(Tls(sock, ssl_context(peer.certificate, ["http/1.1"])))


@script(TLS)
def tls_http1_then_http2(peer, sock, context):
    tls = go(Tls(sock, ssl_context(peer.certificate, ["http/1.1"])))
    tls.read()
    tls.write(settings() + frame(HEADERS, END_HEADERS | END_STREAM, 1, b"\x88"))
    raise Gone


@script(TLS)
def tls_http2_then_http1(peer, sock, context):
    tls = go(Tls(sock, context))
    tls.read()
    tls.write(b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}")
    raise Gone


def go(tls):
    tls.handshake()
    return tls


# ---- HTTP/2, before anything is read: f(c, *args) --------------------------------------------------------

@script(OPENING)
def opening_close(c):
    raise Gone


@script(OPENING)
def opening_reset(c):
    c.peer.reset(c.tls.sock)
    raise Gone


@script(OPENING)
def opening_bytes(c, text):
    """These bytes are our whole preface; requests are then served as ever."""
    c.start(bytes.fromhex(text))


@script(OPENING)
def opening_bytes_close(c, text):
    c.start(bytes.fromhex(text))
    raise Gone


@script(OPENING)
def opening_hold(c):
    c.hold()


@script(OPENING)
def opening_goaway(c, code):
    c.start()
    c.raw(goaway(0, int(code)))
    raise Gone


@script(OPENING)
def opening_goaway_hold(c, code):
    """Refuses, and leaves closing to the client."""
    c.start()
    c.raw(goaway(0, int(code)))
    c.hold()


@script(OPENING)
def opening_settings(c, *pairs):
    """KEY:VALUE:KEY:VALUE..."""
    values = [int(v) for v in pairs]
    c.start(settings(*zip(values[::2], values[1::2])))


@script(OPENING)
def opening_settings_hold(c, *pairs):
    opening_settings(c, *pairs)
    c.hold()


@script(OPENING)
def opening_settings_flood(c):
    c.start()
    for _ in range(40):
        c.raw(settings() * 500)


@script(OPENING)
def opening_ping_flood(c):
    c.start()
    for _ in range(40):
        c.raw(frame(PING, 0, 0, b"12345678") * 500)


@script(OPENING)
def opening_headers_before_request(c):
    c.start()
    c.stream = 1
    c.raw(c.headers(), c.data(b"{}"))
    c.request()
    raise Gone


# ---- HTTP/2, while the request arrives: f(c, *args) -------------------------------------------------------

def mid(function):
    """Runs once the request's HEADERS are there, its body perhaps not."""
    function.mid = True
    return script(REQUEST)(function)


@mid
def mid_goaway(c, code):
    c.raw(goaway(0, int(code)))
    raise Gone


@mid
def mid_rst(c, code):
    c.raw(rst(c.stream, int(code)))


@mid
def mid_close(c):
    raise Gone


@mid
def mid_reset(c):
    c.peer.reset(c.tls.sock)
    raise Gone


@mid
def mid_answer_rst(c, code):
    """Answers whole with an announced length and resets before the request has ended."""
    c.raw(c.headers(more=[("content-length", "2")]), c.data(b"{}"), rst(c.stream, int(code)))


@mid
def mid_hold(c):
    c.hold()


# ---- HTTP/2, once a whole request is there: f(c, *args) --------------------------------------------------

@script(REQUEST)
def reply(c, status, body="", *headers):
    """STATUS:BODY:NAME:VALUE..., all but the status in hexadecimal."""
    text = [bytes.fromhex(h).decode("latin-1") for h in headers]
    c.raw(c.headers(status, list(zip(text[::2], text[1::2]))))
    c.send_body(bytes.fromhex(body))


@script(REQUEST)
def reply_status_hex(c, status):
    c.raw(c.headers(bytes.fromhex(status).decode("latin-1")), c.data(b"{}"))


@script(REQUEST)
def reply_without_end(c, body, *headers):
    """The announced bytes, and the end of the stream never comes."""
    text = [bytes.fromhex(h).decode("latin-1") for h in headers]
    c.raw(c.headers(more=list(zip(text[::2], text[1::2]))), c.data(bytes.fromhex(body), 0))
    c.hold()


@script(REQUEST)
def headers_end_stream(c, status):
    c.raw(c.headers(status, flags=END_HEADERS | END_STREAM))


@script(REQUEST)
def headers_more(c, *headers):
    """As `reply` with 200 {} but with no :status of its own."""
    text = [bytes.fromhex(h).decode("latin-1") for h in headers]
    c.raw(c.headers(None, list(zip(text[::2], text[1::2]))), c.data(b"{}"))


@script(REQUEST)
def interim(c, status, count):
    c.raw(*[c.headers(status)] * int(count), c.headers(), c.data(b"{}"))


@script(REQUEST)
def interim_only(c, status):
    c.raw(c.headers(status))
    raise Gone


@script(REQUEST)
def close_before(c):
    raise Gone


@script(REQUEST)
def reset_before(c):
    c.peer.reset(c.tls.sock)
    raise Gone


@script(REQUEST)
def goaway_before(c, code):
    c.raw(goaway(0, int(code)))
    raise Gone


@script(REQUEST)
def goaway_debug(c, size):
    c.raw(goaway(0, 11, b"x" * int(size)))
    raise Gone


@script(REQUEST)
def goaway_flood(c):
    c.raw(goaway(c.stream, 0) * 2000)
    raise Gone


@script(REQUEST)
def goaway_mid(c, code):
    """Names the stream as one that is served, and then is not."""
    c.raw(c.headers(), goaway(c.stream, int(code)), c.data(b"{", 0))
    raise Gone


@script(REQUEST)
def goaway_mid_whole(c, code):
    c.raw(c.headers(), goaway(c.stream, int(code)), c.data(b"{}"))


@script(REQUEST)
def goaway_after(c, code):
    c.raw(c.headers(), c.data(b"{}"), goaway(c.stream, int(code)))
    raise Gone


@script(REQUEST)
def rst_before(c, code):
    c.raw(rst(c.stream, int(code)))


@script(REQUEST)
def rst_mid(c, code):
    """Between headers and body."""
    c.raw(c.headers(), rst(c.stream, int(code)))


@script(REQUEST)
def rst_in_body(c, code):
    c.raw(c.headers(), c.data(b"{", 0), rst(c.stream, int(code)))


@script(REQUEST)
def rst_in_announced_body(c, code):
    c.raw(c.headers(more=[("content-length", "20")]), c.data(b"{", 0), rst(c.stream, int(code)))


@script(REQUEST)
def rst_after(c, code):
    c.raw(c.headers(), c.data(b"{}"), rst(c.stream, int(code)))


@script(REQUEST)
def rst_flood(c):
    c.raw(rst(c.stream, 8) * 2000)


@script(REQUEST)
def rst_idle_stream(c):
    c.raw(rst(c.stream + 100, 8))


@script(REQUEST)
def rst_stream_zero(c):
    c.raw(rst(0, 8))


@script(REQUEST)
def close_in_headers(c, size):
    c.raw(c.headers(more=[("server", "peer"), ("content-length", "2")])[:int(size)])
    raise Gone


@script(REQUEST)
def close_after_headers(c):
    c.raw(c.headers())
    raise Gone


@script(REQUEST)
def reset_after_headers(c):
    c.raw(c.headers())
    c.peer.reset(c.tls.sock)
    raise Gone


@script(REQUEST)
def close_in_body(c, size):
    """Of a DATA frame with a header of nine bytes and a body of two."""
    c.raw(c.headers(more=[("content-length", "2")]), c.data(b"{}")[:int(size)])
    raise Gone


@script(REQUEST)
def close_in_unannounced_body(c):
    c.raw(c.headers(), c.data(b"{", 0))
    raise Gone


@script(REQUEST)
def goodbye_in_body(c):
    c.raw(c.headers(), c.data(b"{", 0))
    c.tls.say_goodbye()
    raise Gone


@script(REQUEST)
def headers_without_end(c):
    c.raw(c.headers(flags=0))
    c.hold()


@script(REQUEST)
def headers_without_end_close(c):
    c.raw(c.headers(flags=0))
    raise Gone


@script(REQUEST)
def headers_without_end_data(c):
    c.raw(c.headers(flags=0), c.data(b"{}"))


@script(REQUEST)
def continuation_flood(c):
    c.raw(c.headers(flags=0))
    piece = b"\x00\x01a\x01b"  # A literal that enters no table.
    for _ in range(2000):
        c.raw(frame(CONTINUATION, 0, c.stream, piece * 100) * 50)


@script(REQUEST)
def empty_continuation_flood(c):
    c.raw(c.headers(flags=0))
    for _ in range(200):
        c.raw(frame(CONTINUATION, 0, c.stream) * 500)


@script(REQUEST)
def continuation_alone(c):
    c.raw(frame(CONTINUATION, END_HEADERS, c.stream, b"\x88"))


@script(REQUEST)
def header_drip(c):
    c.raw(c.headers(flags=0))
    while True:
        c.peer.pause(0.02)
        c.raw(frame(CONTINUATION, 0, c.stream, b"\x00\x01a\x01b"))


@script(REQUEST)
def header_bomb(c):
    """One entry of the table, of 4,000 bytes, named ten thousand times."""
    big = b"\x40\x01a" + b"\x7f" + bytes([0x80 | ((4000 - 127) & 0x7F), (4000 - 127) >> 7]) + b"b" * 4000
    c.raw(frame(HEADERS, 0, c.stream, b"\x88" + big),
          frame(CONTINUATION, END_HEADERS, c.stream, b"\xbe" * 10000), c.data(b"{}"))


@script(REQUEST)
def headers_many(c, count, size):
    block = b"\x88" + (b"\x00\x01a\x7f" + bytes([0x80 | ((int(size) - 127) & 0x7F), (int(size) - 127) >> 7])
                       + b"b" * int(size)) * int(count)
    parts = [block[at:at + 16000] for at in range(0, len(block), 16000)]
    kinds = [HEADERS] + [CONTINUATION] * (len(parts) - 1)
    for i, (kind, part) in enumerate(zip(kinds, parts)):
        c.raw(frame(kind, END_HEADERS if i == len(parts) - 1 else 0, c.stream, part))
    c.raw(c.data(b"{}"))


@script(REQUEST)
def hpack(c, text):
    """A header block of these bytes."""
    c.raw(frame(HEADERS, END_HEADERS, c.stream, bytes.fromhex(text)), c.data(b"{}"))


@script(REQUEST)
def data_first(c):
    c.raw(c.data(b"{}"))


@script(REQUEST)
def data_stream(c, stream):
    c.raw(c.headers(), c.data(b"{}", stream=int(stream)) if int(stream) else frame(DATA, 1, 0, b"{}"))


@script(REQUEST)
def data_after_end(c):
    c.raw(c.headers(), c.data(b"{}"), c.data(b"more"))


@script(REQUEST)
def headers_after_end(c):
    c.raw(c.headers(), c.data(b"{}"), c.headers("500"))


@script(REQUEST)
def headers_twice(c):
    c.raw(c.headers(), c.headers("500"), c.data(b"{}"))


@script(REQUEST)
def trailers(c, *headers):
    text = [bytes.fromhex(h).decode("latin-1") for h in headers]
    c.raw(c.headers(), c.data(b"{}", 0),
          c.headers(None, list(zip(text[::2], text[1::2])), END_HEADERS | END_STREAM))


@script(REQUEST)
def trailers_without_end(c):
    c.raw(c.headers(), c.data(b"{}", 0), c.headers(None, [("x", "y")]))


@script(REQUEST)
def data_padded(c, padding, claimed):
    payload = bytes([int(claimed)]) + b"{}" + b"\0" * int(padding)
    c.raw(c.headers(), frame(DATA, PADDED | END_STREAM, c.stream, payload))


@script(REQUEST)
def headers_padded(c, padding, claimed):
    payload = bytes([int(claimed)]) + b"\x88" + b"\0" * int(padding)
    c.raw(frame(HEADERS, PADDED | END_HEADERS, c.stream, payload), c.data(b"{}"))


@script(REQUEST)
def before_answer(c, text):
    """These bytes, then a good answer."""
    c.raw(bytes.fromhex(text), c.headers(), c.data(b"{}"))


@script(REQUEST)
def inside_answer(c, text):
    """These bytes between headers and body."""
    c.raw(c.headers(), bytes.fromhex(text), c.data(b"{}"))


@script(REQUEST)
def empty_data(c, count):
    c.raw(c.headers(), c.data(b"", 0) * int(count), c.data(b"{}"))


@script(REQUEST)
def many_pings(c, count):
    c.raw(*[frame(PING, 0, 0, b"12345678")] * int(count), c.headers(), c.data(b"{}"))


@script(REQUEST)
def push_promise(c, stream):
    promised = struct.pack(">I", int(stream)) + c.pack(
        [(":method", "GET"), (":path", "/"), (":scheme", "https"), (":authority", "127.0.0.1")])
    c.raw(frame(PUSH, END_HEADERS, c.stream, promised), c.headers(), c.data(b"{}"))


@script(REQUEST)
def settings_mid(c, *pairs):
    values = [int(v) for v in pairs]
    c.raw(c.headers(), settings(*zip(values[::2], values[1::2])), c.data(b"{}"))


@script(REQUEST)
def window_bytes(c, stream, step):
    target = c.stream if int(stream) else 0
    c.raw(frame(WINDOW, 0, target, struct.pack(">I", int(step))), c.headers(), c.data(b"{}"))


@script(REQUEST)
def over_window(c):
    """More than the client's windows allow, in one go, announced to no one."""
    c.raw(c.headers())
    while True:
        c.raw(*[c.data(b"x" * 16384, 0)] * 64)


@script(REQUEST)
def endless_body(c, *announced):
    """Waits for the client's window as it must, and never ends."""
    more = [("content-length", announced[0])] if announced else []
    c.conn.send_headers(c.stream, [(b":status", b"200")] + [(n.encode(), v.encode()) for n, v in more])
    while True:
        room = min(c.conn.local_flow_control_window(c.stream), 16384)
        if room > 0:
            c.conn.send_data(c.stream, b"x" * room)
            c.tls.write(c.conn.data_to_send())
        else:
            c.pump()


@script(REQUEST)
def body_drip(c):
    c.raw(c.headers())
    while not c.peer.behaves:
        c.peer.pause(0.02)
        c.raw(c.data(b"x", 0))


@script(REQUEST)
def hold(c):
    c.hold()


@script(REQUEST)
def random_bytes(c):
    c.raw(b"\xff" * 9 + os.urandom(8192))


@script(REQUEST)
def answer_then_close(c):
    """Good once; the next request on the connection finds it closed."""
    c.raw(c.headers(), c.data(b"{}"))
    raise Gone


@script(REQUEST)
def refused_then_served(c, count):
    """Refuses that many streams, whatever their connections, and serves the next."""
    if c.peer.requests <= int(count):
        c.raw(rst(c.stream, 7))
    else:
        c.raw(c.headers(), c.data(b"{}"))


@script(REQUEST)
def http1_required_in_body(c, body):
    """What is then asked for over HTTP/1.1 is this."""
    c.peer.http1_body = bytes.fromhex(body)
    c.raw(c.headers(), c.data(b"half an answer", 0))
    c.peer.pause(0.1)  # The client has taken it.
    c.raw(rst(c.stream, 13))


# ---- The server --------------------------------------------------------------------------------------

def ssl_context(certificate, protocols):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(*certificate)
    if protocols:
        context.set_alpn_protocols(protocols)
    return context


class Peer:
    """One listener with its connections."""

    def __init__(self, name, certificate):
        self.name, *self.args = name.split(":")
        self.certificate = certificate
        self.behaves = False
        self.http1_body = b"{}"
        self.lock = threading.Lock()
        self.ending = threading.Event()
        self.requests = 0
        self.open = []
        self.threads = []
        stages = [stage for stage in (TCP, TLS, OPENING, REQUEST) if self.name in stage]
        self.stage = stages[0] if stages else None
        self.listener = socket.create_server(("127.0.0.1", 0), backlog=64)
        self.acceptor = threading.Thread(target=self.accept)
        self.acceptor.start()

    def port(self):
        return self.listener.getsockname()[1]

    def count_request(self):
        with self.lock:
            self.requests += 1

    def pause(self, seconds):
        if self.ending.wait(seconds):
            raise Gone

    @staticmethod
    def reset(sock):
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        # A blocked reader elsewhere does not exist: the connection has one thread.
        sock.close()

    def accept(self):
        while True:
            try:
                sock, _ = self.listener.accept()
            except OSError:
                return
            with self.lock:
                if self.ending.is_set():
                    sock.close()
                    return
                self.open.append(sock)
                thread = threading.Thread(target=self.serve, args=(sock,))
                self.threads.append(thread)
                thread.start()

    def serve(self, sock):
        try:
            sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self.converse(sock)
        except (Gone, OSError, h2.exceptions.H2Error):
            pass
        self.finish(sock)

    def finish(self, sock):
        """Our end first; what the client still sends is read, so that the end is no reset."""
        try:
            sock.shutdown(socket.SHUT_WR)
            while sock.recv(65536):
                pass
        except OSError:
            pass
        with self.lock:
            if sock in self.open:
                self.open.remove(sock)
            sock.close()

    def acts(self, stage):
        return self.stage is stage and not self.behaves

    def converse(self, sock):
        if self.acts(TCP):
            return TCP[self.name](self, sock, *self.args)
        context = ssl_context(self.certificate, ["h2", "http/1.1"])
        if self.acts(TLS):
            tls = TLS[self.name](self, sock, context, *self.args)
            if tls is None:
                return
        else:
            tls = go(Tls(sock, context))
        if tls.tls.selected_alpn_protocol() != "h2":
            c = Http1(tls, self)
            while True:
                c.request()
                c.answer_well()
        c = Http2(tls, self)
        if self.acts(OPENING):
            OPENING[self.name](c, *self.args)
        else:
            c.start()
        while True:
            action = REQUEST[self.name] if self.acts(REQUEST) else None
            if hasattr(action, "mid"):
                c.until("headers")
                if not self.behaves:
                    action(c, *self.args)
                    c.dropped.add(c.stream)
                    continue
            c.request()
            # Asked again: it may have changed while the connection was idle.
            if self.acts(REQUEST):
                REQUEST[self.name](c, *self.args)
            else:
                c.answer_well()

    def end(self):
        self.ending.set()
        self.listener.shutdown(socket.SHUT_RDWR)
        self.acceptor.join()
        self.listener.close()
        with self.lock:
            for sock in self.open:
                try:
                    sock.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass
        for thread in self.threads:
            thread.join()


def obey(control):
    peer = None
    for line in control.makefile("r"):
        words = line.split()
        if words[0] == "arm":
            peer = Peer(words[1], (words[2], words[3]))
            if peer.stage is None and words[1] != "good":
                raise SystemExit("h2_peer.py: there is no script " + words[1])
            answer = peer.port()
        elif words[0] == "behave":
            peer.certificate = (words[1], words[2])
            peer.behaves = True
            answer = 0
        elif words[0] == "disarm":
            peer.end()
            answer = peer.requests
        else:
            raise SystemExit("h2_peer.py: there is no command " + words[0])
        control.sendall(b"%d\n" % answer)


if __name__ == "__main__":
    obey(socket.create_connection(("127.0.0.1", int(sys.argv[1]))))
