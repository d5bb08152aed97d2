"""A small HLVP client written from docs/protocol.md alone: TLS 1.3, 4-byte big-endian frame
length, one CBOR map per frame. Used to talk to the real agent the way any third-party viewer
would, and to send it what no well-behaved viewer would."""
import socket
import ssl
import struct

import cbor2


def tls_context():
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.minimum_version = ssl.TLSVersion.TLSv1_3
    # Agents present self-signed certificates: this client accepts any.
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    return context


def frame(message):
    body = cbor2.dumps(message)
    return struct.pack(">I", len(body)) + body


class HLVPClient:
    def __init__(self, port, host="127.0.0.1", timeout=60.0, source=None):
        raw = socket.create_connection((host, port), timeout=timeout,
                                       source_address=(source, 0) if source else None)
        self.sock = tls_context().wrap_socket(raw, server_hostname=host)
        self._buffer = b""

    def send(self, message):
        self.sock.sendall(frame(message))

    def send_raw(self, data):
        self.sock.sendall(data)

    def receive(self, timeout=60.0):
        """The next message, or None when the agent closed the connection."""
        self.sock.settimeout(timeout)
        while True:
            if len(self._buffer) >= 4:
                (length,) = struct.unpack(">I", self._buffer[:4])
                if len(self._buffer) >= 4 + length:
                    body = self._buffer[4:4 + length]
                    self._buffer = self._buffer[4 + length:]
                    return cbor2.loads(body)
            try:
                chunk = self.sock.recv(65536)
            except (ConnectionResetError, ssl.SSLError):
                return None
            if not chunk:
                return None
            self._buffer += chunk

    def receive_until(self, message_type, timeout=60.0):
        while True:
            message = self.receive(timeout)
            if message is None or message.get("type") == message_type:
                return message

    def handshake(self, name):
        self.send({"type": "handshake", "clientName": name, "protocolVersion": 1})
        return self.receive_until("handshakeResponse")

    def sign_in(self, name, user, password, timeout=60.0):
        """Hand-shakes as `name` and signs in with a password; the agent's answer."""
        self.handshake(name)
        self.send({"type": "authentication", "method": "password",
                   "credentials": {"username": user, "password": password}})
        return self.receive_until("authenticationResponse", timeout)

    def close(self):
        try:
            self.sock.close()
        except OSError:
            pass
