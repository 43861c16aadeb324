"""Certificates as authorities issue them, made with openssl."""

import os
import pathlib
import subprocess


def openssl(*words, **keywords):
    return subprocess.run(["openssl", *map(str, words)], check=True, capture_output=True, **keywords)


class Authority:
    """A root, and an intermediate that signs certificates."""

    def __init__(self, directory):
        self.directory = pathlib.Path(directory)
        self.directory.mkdir(parents=True, exist_ok=True)
        self.root = self.directory / "root.pem"
        self.chain = self.directory / "chain.pem"
        self._key("root")
        openssl("req", "-x509", "-key", self._path("root", "key"), "-days", "3650", "-subj", "/CN=Test Root", "-out", self.root)
        self._key("chain")
        self._sign("chain", "/CN=Test Intermediate", "root", ["basicConstraints=critical,CA:TRUE"], 3000)

    def _path(self, name, kind):
        return self.directory / f"{name}.{kind}"

    def _key(self, name, algorithm=("EC", "ec_paramgen_curve:P-256")):
        kind, *options = algorithm
        words = [word for option in options for word in ("-pkeyopt", option)]
        openssl("genpkey", "-algorithm", kind, *words, "-out", self._path(name, "key"))

    def _sign(self, name, subject, issuer, extensions, days, start=None):
        request, extra = self._path(name, "csr"), self._path(name, "ext")
        openssl("req", "-new", "-key", self._path(name, "key"), "-subj", subject, "-out", request)
        extra.write_text("\n".join(extensions) + "\n")
        openssl("x509", "-req", "-in", request, "-CA", self._path(issuer, "pem"), "-CAkey", self._path(issuer, "key"),
                "-days", days, "-extfile", extra, "-out", self._path(name, "pem"))

    def issue(self, name, domains, days=90, algorithm=("EC", "ec_paramgen_curve:P-256")):
        """NAME.pem and NAME.key for these domains; -1 days are over already."""
        self._key(name, algorithm)
        names = ",".join(f"DNS:{domain}" for domain in domains)
        self._sign(name, f"/CN={domains[0]}", "chain", [f"subjectAltName={names}"], days)
        return Pair(self, name)

    def certbot(self, pair, live=None, version=1):
        """What certbot leaves after an issue or a renewal: links in "live/NAME" to numbered files in "archive/NAME"."""
        live = pathlib.Path(live or self.directory / "letsencrypt/live" / pair.name)
        archive = live.parent.parent / "archive" / live.name
        live.mkdir(parents=True, exist_ok=True)
        archive.mkdir(parents=True, exist_ok=True)
        for kind, content in (("cert", pair.certificate.read_text()), ("chain", self.chain.read_text()),
                              ("fullchain", pair.certificate.read_text() + self.chain.read_text()),
                              ("privkey", pair.key.read_text())):
            (archive / f"{kind}{version}.pem").write_text(content)
            link = live / f"{kind}.pem"
            link.unlink(missing_ok=True)
            os.symlink(f"../../archive/{live.name}/{kind}{version}.pem", link)
        return live


class Pair:
    def __init__(self, authority, name):
        self.authority = authority
        self.name = name
        self.certificate = authority.directory / f"{name}.pem"
        self.key = authority.directory / f"{name}.key"

    @property
    def sha256(self):
        said = openssl("x509", "-in", self.certificate, "-noout", "-fingerprint", "-sha256").stdout.decode()
        return said.strip().partition("=")[2].replace(":", "")

    def sealed(self, phrase):
        """The key, encrypted."""
        path = self.authority.directory / f"{self.name}.sealed"
        openssl("pkcs8", "-topk8", "-in", self.key, "-out", path, "-passout", "stdin", input=phrase.encode())
        return path

    def pkcs12(self, phrase, *options):
        path = self.authority.directory / f"{self.name}.p12"
        openssl("pkcs12", "-export", "-in", self.certificate, "-inkey", self.key, "-certfile", self.authority.chain,
                "-out", path, "-passout", "stdin", *options, input=phrase.encode())
        return path
