#!/usr/bin/env python3
"""A time-stamping authority on loopback (RFC 3161 over HTTP), for tests: openssl makes the certificates and the tokens.

TimeStampAuthority.py [--fault NAME] [--directory DIR] [--until-end-of-input] [--list-faults]

The first line on standard output is its URL; from then on it serves, until it is killed. In DIR are then
  tsa-ca.pem      the root that vouches for the authority
  tsa.pem         the authority's certificate
  requests/N.tsq  what it was sent, by number; it appears before the answer
DIR is made if it is not there. Without --directory everything is in a temporary directory, which SIGTERM and SIGINT
remove. With --until-end-of-input, the end of standard input does so, too: when a test dies that holds the other end,
nothing is left. With --fault it gives one wrong answer to every request; --list-faults prints the names, one a line.
Without it, a request for the path /NAME gets this wrong answer.
"""

import argparse
import http.server
import os
import pathlib
import shutil
import signal
import socket
import socketserver
import subprocess
import sys
import tempfile
import threading
import time

POLICY = "1.2.3.4.1"
OTHER_POLICY = "1.2.3.4.5.7"
REPLY_TYPE = "application/timestamp-reply"
SHA256 = bytes.fromhex("608648016503040201")
SHA512 = bytes.fromhex("608648016503040203")

BOOLEAN, INTEGER, BITS, OCTETS, OID, UTF8, SEQUENCE = 0x01, 0x02, 0x03, 0x04, 0x06, 0x0C, 0x30


def der(tag, *bodies):
    """One DER element."""
    body = b"".join(bodies)
    if len(body) < 0x80:
        return bytes([tag, len(body)]) + body
    length = len(body).to_bytes((len(body).bit_length() + 7) // 8, "big")
    return bytes([tag, 0x80 | len(length)]) + length + body


def elements(data):
    """The elements of a DER body, as pairs of tag and body."""
    found = []
    while data:
        tag, length, header = data[0], data[1], 2
        if length & 0x80:
            header += length & 0x7F
            length = int.from_bytes(data[2:header], "big")
        if len(data) < header + length:
            raise ValueError("DER that ends too early")
        found.append((tag, data[header : header + length]))
        data = data[header + length :]
    return found


def only_element(data, tag):
    """The body of the one element that the data is."""
    found = elements(data)
    if len(found) != 1 or found[0][0] != tag:
        raise ValueError("DER of another kind")
    return found[0][1]


class Request:
    """A TimeStampReq whose fields can be changed."""

    def __init__(self, data):
        fields = elements(only_element(data, SEQUENCE))
        if [tag for tag, _ in fields[:2]] != [INTEGER, SEQUENCE]:
            raise ValueError("no TimeStampReq")
        self.version = fields[0][1]
        self.digest, self.imprint = (body for _, body in elements(fields[1][1]))
        rest = dict(fields[2:])
        self.policy = rest.get(OID)
        self.nonce = rest.get(INTEGER)
        self.certificate = rest.get(BOOLEAN, b"\0") != b"\0"

    def encoded(self):
        """The request as DER."""
        fields = [
            der(INTEGER, self.version),
            der(SEQUENCE, der(SEQUENCE, self.digest), der(OCTETS, self.imprint)),
            b"" if self.policy is None else der(OID, self.policy),
            b"" if self.nonce is None else der(INTEGER, self.nonce),
            der(BOOLEAN, b"\xff") if self.certificate else b"",
        ]
        return der(SEQUENCE, *fields)


def openssl(*arguments):
    """Runs openssl; its messages are part of the exception when it fails."""
    done = subprocess.run(
        ["openssl", *(str(argument) for argument in arguments)],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.DEVNULL,
        stderr=subprocess.PIPE,
        check=False,
    )
    if done.returncode != 0:
        raise RuntimeError(f"openssl {arguments[0]}: {done.stderr.decode(errors='replace')}")


# Each certificate with its extended key usage, and its issuer.
USAGES = {
    "tsa": ("critical,timeStamping", "tsa-ca"),
    "expired": ("critical,timeStamping", "tsa-ca"),
    "mail": ("critical,emailProtection", "tsa-ca"),
    "not-critical": ("timeStamping", "tsa-ca"),
    "two-usages": ("critical,timeStamping,emailProtection", "tsa-ca"),
    "foreign": ("critical,timeStamping", "foreign-ca"),
}
VALID = ("20200101000000Z", "20491231235959Z")
EXPIRED = ("20200101000000Z", "20210101000000Z")


class Authority:
    """The keys and certificates, and what openssl makes with them."""

    def __init__(self, directory):
        self.directory = directory
        self.lock = threading.Lock()
        self.issuing = threading.Lock()
        self.count = 0
        (directory / "requests").mkdir(parents=True, exist_ok=True)
        self.private = directory / "private"
        self.private.mkdir(exist_ok=True)
        (self.private / "serial").write_text("01\n")
        self.signer("tsa")
        shutil.copy(self.private / "tsa-ca.pem", directory / "tsa-ca.pem")
        shutil.copy(self.private / "tsa.pem", directory / "tsa.pem")

    def signer(self, name):
        """The certificate's path without its extension; the first time it is made."""
        with self.issuing:
            if not (self.private / f"{name}.pem").exists():
                issuer = USAGES[name][1]
                if not (self.private / f"{issuer}.pem").exists():
                    self.make_root(issuer)
                self.issue(name, issuer)
        return self.private / name

    def make_key(self, name):
        """A new key, as a file."""
        key = self.private / f"{name}.key"
        openssl("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out", key)
        return key

    def make_root(self, name):
        """A root of its own, with the directory of "openssl ca"."""
        key = self.make_key(name)
        config = self.private / f"{name}.cnf"
        (self.private / f"{name}.index").write_text("")
        (self.private / f"{name}.next").write_text("1000\n")
        usages = "".join(
            f"[{user}]\nbasicConstraints=critical,CA:FALSE\nkeyUsage=critical,digitalSignature\n"
            f"extendedKeyUsage={usage}\nsubjectKeyIdentifier=hash\nauthorityKeyIdentifier=keyid\n"
            for user, (usage, issuer) in USAGES.items()
            if issuer == name
        )
        config.write_text(
            f"[req]\ndistinguished_name=dn\nprompt=no\nx509_extensions=root\n[dn]\nO=Time stamps\nCN={name}\n"
            "[root]\nbasicConstraints=critical,CA:TRUE\nkeyUsage=critical,keyCertSign,cRLSign\n"
            "subjectKeyIdentifier=hash\n"
            f"[ca]\ndefault_ca=it\n[it]\ndatabase={self.private}/{name}.index\nserial={self.private}/{name}.next\n"
            f"new_certs_dir={self.private}\ncertificate={self.private}/{name}.pem\nprivate_key={key}\n"
            "default_md=sha256\npolicy=any\nunique_subject=no\nemail_in_dn=no\nrand_serial=no\n"
            f"[any]\norganizationName=optional\ncommonName=supplied\n{usages}"
        )
        openssl("req", "-x509", "-new", "-config", config, "-key", key, "-days", "3650", "-sha256",
                "-out", self.private / f"{name}.pem")  # fmt: skip

    def issue(self, name, issuer):
        """A certificate with the usage of its name. "openssl ca" alone sets dates in every version."""
        key = self.make_key(name)
        request = self.private / f"{name}.csr"
        begin, end = EXPIRED if name == "expired" else VALID
        openssl("req", "-new", "-config", self.private / f"{issuer}.cnf", "-key", key,
                "-subj", f"/O=Time stamps/CN={name}", "-out", request)  # fmt: skip
        openssl("ca", "-batch", "-notext", "-config", self.private / f"{issuer}.cnf", "-extensions", name,
                "-startdate", begin, "-enddate", end, "-in", request,
                "-out", self.private / f"{name}.pem")  # fmt: skip

    def keep(self, body):
        """Keeps a request for the test to look at."""
        with self.lock:
            self.count += 1
            kept = self.directory / "requests" / f"{self.count}.tsq"
            part = kept.with_suffix(".part")
            part.write_bytes(body)
            part.rename(kept)

    def reply(self, query, signer="tsa"):
        """What "openssl ts" replies."""
        config = self.private / f"{signer}.ts.cnf"
        key = self.signer(signer)
        with self.lock, tempfile.TemporaryDirectory(dir=self.private) as scratch:
            config.write_text(
                f"[tsa]\nserial={self.private}/serial\nsigner_cert={key}.pem\n"
                f"signer_key={key}.key\nsigner_digest=sha256\n"
                f"default_policy={POLICY}\nother_policies={OTHER_POLICY}, 1.2.3.4.5.6\n"
                "digests=sha256, sha384, sha512, sha512-256, sha3-256, sha3-384, sha3-512\n"
                "accuracy=secs:1\nordering=no\ntsa_name=yes\ness_cert_id_chain=no\ness_cert_id_alg=sha256\n"
            )
            asked, answered = pathlib.Path(scratch) / "tsq", pathlib.Path(scratch) / "tsr"
            asked.write_bytes(query)
            openssl("ts", "-reply", "-config", config, "-section", "tsa", "-queryfile", asked, "-out", answered)
            return answered.read_bytes()

    def signed(self, content, signers, options=("-cades",), content_type="id-smime-ct-TSTInfo"):
        """A granted reply around a token that "openssl ts" would refuse to make."""
        with tempfile.TemporaryDirectory(dir=self.private) as scratch:
            info, token = pathlib.Path(scratch) / "info", pathlib.Path(scratch) / "token"
            info.write_bytes(content)
            arguments = ["cms", "-sign", "-binary", "-nodetach", "-nosmimecap", "-md", "sha256"]
            arguments += ["-econtent_type", content_type, "-outform", "DER", *options, "-in", info, "-out", token]
            for signer in signers:
                key = self.signer(signer)
                arguments += ["-signer", f"{key}.pem", "-inkey", f"{key}.key"]
            openssl(*arguments)
            return der(SEQUENCE, der(SEQUENCE, der(INTEGER, b"\0")), token.read_bytes())

    def info_of(self, reply):
        """The TSTInfo in a reply."""
        with tempfile.TemporaryDirectory(dir=self.private) as scratch:
            whole, token, info = (pathlib.Path(scratch) / name for name in ("tsr", "token", "info"))
            whole.write_bytes(reply)
            openssl("ts", "-reply", "-in", whole, "-token_out", "-out", token)
            openssl("cms", "-verify", "-noverify", "-binary", "-inform", "DER", "-in", token, "-out", info)
            return info.read_bytes()


def changed(field, value):
    """A fault: the authority answers another request than it was sent."""

    def answer(authority, query):
        request = Request(query)
        setattr(request, field, value(getattr(request, field)))
        return authority.reply(request.encoded())

    return answer


def other_digest(authority, query):
    """The imprint of another digest."""
    request = Request(query)
    name, size = (SHA512, 64) if SHA256 in request.digest else (SHA256, 32)
    request.digest, request.imprint = der(OID, name), bytes(size)
    return authority.reply(request.encoded())


def signed_by(*signers, **options):
    """A fault: the right TSTInfo, signed by somebody who must not, or in another way."""
    return lambda authority, query: authority.signed(authority.info_of(authority.reply(query)), signers, **options)


def other_version(authority, query):
    """A TSTInfo of a version that does not exist."""
    fields = elements(only_element(authority.info_of(authority.reply(query)), SEQUENCE))
    fields[0] = (INTEGER, b"\x02")
    return authority.signed(der(SEQUENCE, *(der(tag, body) for tag, body in fields)), ["tsa"])


def with_status(status, text, failure=b""):
    """PKIStatusInfo."""
    fields = [der(INTEGER, bytes([status])), der(SEQUENCE, der(UTF8, text.encode()))]
    return der(SEQUENCE, *fields, der(BITS, failure) if failure else b"")


def rejected_with_token(authority, query):
    """A refusal with a good token behind it."""
    _, token = elements(only_element(authority.reply(query), SEQUENCE))
    return der(SEQUENCE, with_status(2, "the clock is being set"), der(*token))


def bad_signature(authority, query):
    """The signature value ends the reply."""
    reply = bytearray(authority.reply(query))
    reply[-1] ^= 1
    return bytes(reply)


# timeNotAvailable is bit 14.
TIME_NOT_AVAILABLE = b"\x01\x00\x02"

# Wrong answers in correct HTTP.
REPLIES = {
    "wrong-nonce": changed("nonce", lambda nonce: nonce[:-1] + bytes([nonce[-1] ^ 1])),
    "missing-nonce": changed("nonce", lambda nonce: None),
    "wrong-imprint": changed("imprint", lambda imprint: bytes([imprint[0] ^ 1]) + imprint[1:]),
    "other-digest": other_digest,
    "wrong-policy": changed("policy", lambda policy: bytes.fromhex("2a03040507")),
    "certificate-missing": changed("certificate", lambda certificate: False),
    "rejected": lambda authority, query: der(SEQUENCE, with_status(2, "the clock is being set", TIME_NOT_AVAILABLE)),
    "rejected-with-token": rejected_with_token,
    "waiting": lambda authority, query: der(SEQUENCE, with_status(3, "come back tomorrow")),
    "granted-without-token": lambda authority, query: der(SEQUENCE, der(SEQUENCE, der(INTEGER, b"\0"))),
    "wrong-usage": signed_by("mail"),
    "usage-not-critical": signed_by("not-critical"),
    "two-usages": signed_by("two-usages"),
    "expired-certificate": lambda authority, query: authority.reply(query, "expired"),
    "foreign-authority": lambda authority, query: authority.reply(query, "foreign"),
    "no-signing-certificate": signed_by("tsa", options=()),
    "two-signers": signed_by("tsa", "foreign"),
    "wrong-content-type": signed_by("tsa", content_type="pkcs7-data"),
    "other-version": other_version,
    "bad-signature": bad_signature,
    "trailing-bytes": lambda authority, query: authority.reply(query) + b"\0",
    "cut-token": lambda authority, query: authority.reply(query)[:-40],
    "garbage": lambda authority, query: b"\x30\x84garbage" * 40,
    "empty": lambda authority, query: b"",
}


def send(handler, status, reply, content_type=REPLY_TYPE, headers=()):
    """An answer as HTTP wants it."""
    handler.send_response(status)
    for name, value in [("Content-Type", content_type), ("Content-Length", str(len(reply))), *headers]:
        handler.send_header(name, value)
    handler.end_headers()
    handler.wfile.write(reply)


def slowly(handler, reply):
    """A good reply that takes an hour."""
    handler.send_response(200)
    handler.send_header("Content-Type", REPLY_TYPE)
    handler.send_header("Content-Length", str(len(reply)))
    handler.end_headers()
    for byte in reply:
        handler.wfile.write(bytes([byte]))
        handler.wfile.flush()
        time.sleep(1)


def announce(handler, size, piece=b"0" * 65536):
    """As many bytes as announced, or until the client goes; no size: nothing is announced."""
    handler.send_response(200)
    handler.send_header("Content-Type", REPLY_TYPE)
    if size is not None:
        handler.send_header("Content-Length", str(size))
    handler.end_headers()
    while size is None or size > 0:
        handler.wfile.write(piece)
        size = None if size is None else size - len(piece)


def endless_headers(handler):
    """Header lines until the client goes."""
    handler.wfile.write(b"HTTP/1.1 200 OK\r\n")
    while True:
        handler.wfile.write(b"X-Filler: " + b"0" * 500 + b"\r\n")


def half(handler, reply):
    """More is announced than comes."""
    handler.send_response(200)
    handler.send_header("Content-Type", REPLY_TYPE)
    handler.send_header("Content-Length", str(len(reply)))
    handler.end_headers()
    handler.wfile.write(reply[: len(reply) // 2])


def silent(handler):
    """Nothing, until the client goes."""
    while handler.connection.recv(4096):
        pass


# What is wrong below the reply. Each is given the handler and a good reply.
EXCHANGES = {
    "http-500": lambda handler, reply: send(handler, 500, reply),
    "http-404": lambda handler, reply: send(handler, 404, b"not here\n", "text/plain"),
    "redirect": lambda handler, reply: send(handler, 302, b"", headers=[("Location", handler.server.url)]),
    "wrong-media-type": lambda handler, reply: send(handler, 200, reply, "text/html"),
    "byte-a-second": slowly,
    "two-gib-announced": lambda handler, reply: announce(handler, 2**31),
    "too-large": lambda handler, reply: announce(handler, None),
    "cut-reply": half,
    "no-answer": lambda handler, reply: silent(handler),
    "no-http": lambda handler, reply: handler.wfile.write(bytes(range(256)) * 4),
    "endless-headers": lambda handler, reply: endless_headers(handler),
}
# This one does not even read the request.
CLOSED_AT_ONCE = "closed-at-once"
FAULTS = sorted([*REPLIES, *EXCHANGES, CLOSED_AT_ONCE])


class Handler(http.server.BaseHTTPRequestHandler):
    """One connection, one exchange."""

    def handle(self):
        if self.server.fault == CLOSED_AT_ONCE:
            return
        if self.connection.recv(4096, socket.MSG_PEEK).startswith(f"POST /{CLOSED_AT_ONCE} ".encode()):
            return
        try:
            super().handle()
        except OSError:
            pass  # The client went away, as it should when an answer is wrong.

    def do_POST(self):  # pylint: disable=invalid-name
        """Answers, rightly or as the fault wants it."""
        if self.headers.get("Content-Type") != "application/timestamp-query":
            send(self, 415, b"no time-stamp query\n", "text/plain")
            return
        query = self.rfile.read(int(self.headers.get("Content-Length", "0")))
        self.server.authority.keep(query)
        fault = self.server.fault or self.path[1:]
        if fault and fault not in FAULTS:
            send(self, 404, b"no such fault\n", "text/plain")
            return
        try:
            reply = REPLIES.get(fault, lambda authority, query: authority.reply(query))(self.server.authority, query)
        except (RuntimeError, ValueError) as failure:
            # A test that waits for a fault must not take this for one.
            print(f"TimeStampAuthority.py: {failure}", file=sys.stderr, flush=True)
            send(self, 503, b"the test's authority is broken\n", "text/plain")
            return
        EXCHANGES.get(fault, lambda handler, reply: send(handler, 200, reply))(self, reply)

    def log_message(self, format, *args):  # pylint: disable=redefined-builtin
        """Says nothing: the tests look at requests/."""


class Server(socketserver.ThreadingMixIn, http.server.HTTPServer):
    """A port of its own, on loopback."""

    daemon_threads = True
    request_queue_size = 64

    def __init__(self, authority, fault):
        super().__init__(("127.0.0.1", 0), Handler)
        self.authority = authority
        self.fault = fault
        self.url = f"http://127.0.0.1:{self.server_address[1]}/"

    def server_bind(self):
        """Without the look-up of this machine's name, which may take long."""
        socketserver.TCPServer.server_bind(self)
        self.server_name, self.server_port = self.server_address


def stop_at_end_of_input():
    """Waits for it. What comes before is ignored."""
    while os.read(sys.stdin.fileno(), 4096):
        pass
    os.kill(os.getpid(), signal.SIGTERM)


def main():
    """Serves."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--fault", choices=FAULTS, metavar="NAME")
    parser.add_argument("--directory", type=pathlib.Path, metavar="DIR")
    parser.add_argument("--until-end-of-input", action="store_true")
    parser.add_argument("--list-faults", action="store_true")
    options = parser.parse_args()
    if options.list_faults:
        print("\n".join(FAULTS))
        return
    for number in (signal.SIGTERM, signal.SIGINT):
        signal.signal(number, lambda *_: sys.exit(0))
    if options.until_end_of_input:
        threading.Thread(target=stop_at_end_of_input, daemon=True).start()
    with tempfile.TemporaryDirectory(prefix="tsa-") as temporary:
        directory = (options.directory or pathlib.Path(temporary)).absolute()
        directory.mkdir(parents=True, exist_ok=True)
        server = Server(Authority(directory), options.fault)
        print(server.url, flush=True)
        server.serve_forever()


if __name__ == "__main__":
    main()
