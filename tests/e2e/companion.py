"""A companion processor that behaves as a test says, on a socket in the directory where remote
devices present themselves. D-Bus as it is on the wire, without a library, so that it can also be
spoken wrongly."""

import array
import os
import socket
import struct
import threading

# Where companions present themselves, through the platform tree.
DIRECTORY = "/run/io.vantor.remote-devices"
SERVICE = "io.vantor.omnitrawl.remote"
OBJECT = "/io/vantor/omnitrawl/remote"
CALL, ANSWER, ERROR, SIGNAL = 1, 2, 3, 4


def padded(data, to):
    return data + b"\0" * (-len(data) % to)


def text(value):
    value = value if isinstance(value, bytes) else value.encode()
    return struct.pack("<I", len(value)) + value + b"\0"


def signature(value):
    return bytes([len(value)]) + value.encode() + b"\0"


def dictionary(entries):
    """An a{sv} from (key, type, value); types are t, s, h, and ay."""
    body = b""
    for key, kind, value in entries:
        body = padded(body, 8) + text(key)
        body += signature(kind)
        body = padded(body, {"t": 8}.get(kind, 4))
        body += {"t": lambda: struct.pack("<Q", value), "h": lambda: struct.pack("<I", value),
                 "s": lambda: text(value),
                 "ay": lambda: struct.pack("<I", len(value)) + value}[kind]()
    # Counted from behind the padding that follows the length; the entries begin on 8.
    return struct.pack("<II", len(body), 0) + body


def message(kind, serial, fields, body, flags=1):
    header = b""
    for code, type_, value in fields:
        header = padded(header, 8) + bytes([code]) + signature(type_)
        if type_ == "g":
            header += signature(value)
        else:
            header = padded(header, 4)
            header += struct.pack("<I", value) if type_ == "u" else text(value)
    head = struct.pack("<BBBBIII", ord("l"), kind, flags, 1, len(body), serial, len(header))
    return padded(head + header, 8) + body


class Peer(threading.Thread):
    """One connection to a companion."""

    def __init__(self, companion, connection):
        super().__init__(daemon=True)
        self.companion, self.connection = companion, connection
        self.received, self.serial = b"", 1

    def run(self):
        companion = self.companion
        try:
            if not companion.answers:
                while self.connection.recv(65536):
                    pass
                return
            self.reach("accepted")
            self.shake_hands()
            while True:
                kind, serial, header, body = self.next_message()
                if kind == CALL and b"GetAll\0" in header:
                    self.answer_with_properties(serial)
                elif kind == CALL:
                    self.reach("asked")
                    self.answer(serial, "b", struct.pack("<I", 1 if companion.offers else 0))
                    self.reach("offering")
                elif kind == SIGNAL:
                    companion.requests.append(body)
                    companion.behaviour(self)
        except (EOFError, OSError):
            pass
        except Exception as failure:  # a mistake of the simulator must fail the test
            companion.failures.append(failure)

    def reach(self, state):
        if self.companion.dies == state:
            self.die()
            raise EOFError

    def fill(self):
        data = self.connection.recv(65536)
        if not data:
            raise EOFError
        self.received += data

    def take(self, count):
        while len(self.received) < count:
            self.fill()
        data, self.received = self.received[:count], self.received[count:]
        return data

    def shake_hands(self):
        self.take(1)
        while True:
            while b"\r\n" not in self.received:
                self.fill()
            line, self.received = self.received.split(b"\r\n", 1)
            if line == b"BEGIN":
                return
            answer = {b"NEGOTIATE_UNIX_FD": b"AGREE_UNIX_FD", b"AUTH EXTERNAL": b"DATA"}.get(line)
            self.connection.sendall((answer or b"OK 0123456789abcdef0123456789abcdef") + b"\r\n")
            self.reach("shaking hands")

    def next_message(self):
        head = self.take(16)
        _, kind, _, _, length, serial, fields = struct.unpack("<BBBBIII", head)
        header = self.take(fields + -fields % 8)
        return kind, serial, header, self.take(length)

    def answer(self, serial, type_, body):
        self.connection.sendall(message(ANSWER, self.next_serial(),
                                        [(5, "u", serial), (8, "g", type_)], body))

    def answer_with_properties(self, serial):
        properties = self.companion.properties
        if properties is None:
            self.connection.sendall(message(
                ERROR, self.next_serial(),
                [(4, "s", "org.freedesktop.DBus.Error.UnknownInterface"), (5, "u", serial)], b""))
        else:
            self.answer(serial, "a{sv}", dictionary(properties))

    def next_serial(self):
        self.serial += 1
        return self.serial

    def send(self, entries, descriptors=(), member="Message"):
        fields = [(1, "o", OBJECT), (2, "s", SERVICE), (3, "s", member), (8, "g", "a{sv}")]
        if descriptors:
            fields.append((9, "u", len(descriptors)))
        data = message(SIGNAL, self.next_serial(), fields, dictionary(entries))
        passed = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", descriptors))]
        self.connection.sendmsg([data], passed if descriptors else [])

    def send_file(self, descriptor, name="corvane_7.tar.gz", kind=1):
        entries = [("RESPONSE_TYPE", "t", kind), ("FILE_TX", "h", 0)]
        if name is not None:
            entries.append(("FILE_NAME", "s", name))
        self.send(entries, [descriptor])

    def keep(self, descriptor):
        """Keeps it open until the companion is stopped."""
        self.companion.kept.append(descriptor)

    def die(self):
        self.connection.shutdown(socket.SHUT_RDWR)


class Companion:
    """Runs `behaviour(peer)` for every peer that asks for an archive. Gives `properties`, entries
    as of a dictionary, or an error for None. `dies` names the state in which it hangs up: accepted,
    shaking hands, asked, offering."""

    def __init__(self, directory, behaviour, name="corvane0", offers=True, answers=True,
                 properties=None, dies=None):
        self.behaviour, self.offers, self.answers = behaviour, offers, answers
        self.properties, self.dies = properties, dies
        self.requests, self.failures, self.kept, self.peers = [], [], [], []
        os.makedirs(directory, 0o755, exist_ok=True)
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(os.path.join(directory, name))
        self.listener.listen(4)
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def run(self):
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                return
            self.peers.append(Peer(self, connection))
            self.peers[-1].start()

    def stop(self):
        self.close(self.listener)
        self.thread.join(10)
        for peer in self.peers:
            self.close(peer.connection)
            peer.join(10)
        while self.kept:
            os.close(self.kept.pop())

    @staticmethod
    def close(open_socket):
        try:
            open_socket.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        open_socket.close()


def file_of(content):
    """A descriptor of a regular file; the caller closes it."""
    descriptor = os.memfd_create("archive")
    os.write(descriptor, content)
    os.lseek(descriptor, 0, os.SEEK_SET)
    return descriptor
