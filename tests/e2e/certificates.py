"""Certificates that openssl makes inside a machine."""

from private_machine import CONFIGURATION

KEYWARDEN = "/usr/sbin/keywarden"
KEY_FILE = f"{CONFIGURATION}/server.pem"
CA_FILE = f"{CONFIGURATION}/ca.pem"
# The same certificate where every user can read it.
PUBLIC_CA_FILE = "/etc/test-authorities.pem"


def make_certificate(machine, domains, passphrase=None, days=30):
    """One file with a key and its self-signed certificate, readable by jabberd, and one with the certificate
    alone. With a pass phrase the key is encrypted, and the pass phrase kept in the keychain."""
    names = ",".join(f"DNS:{domain}" for domain in domains)
    sealing = ["-noenc"] if passphrase is None else ["-passout", "stdin"]
    machine.run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", *sealing,
                "-days", str(days), "-subj", f"/CN={domains[0]}", "-addext", f"subjectAltName={names}",
                "-keyout", KEY_FILE, "-out", CA_FILE, input=passphrase or "")
    machine.run("sh", "-c", f"cat {CA_FILE} >>{KEY_FILE}; chown 0:84 {KEY_FILE} {CA_FILE}; "
                            f"chmod 0640 {KEY_FILE} {CA_FILE}; install -m 0644 {CA_FILE} {PUBLIC_CA_FILE}")
    if passphrase is not None:
        machine.run(KEYWARDEN, "passphrase", "set", KEY_FILE, input=passphrase + "\n")


def serve_over_tls(service, domains):
    """Settings with which accounts of the machine can log in to every one of the domains."""
    make_certificate(service.machine, domains)
    service.set(f"hostsCommaDelimitedString={','.join(domains)}", f"sslKeyFile={KEY_FILE}", f"sslCAFile={CA_FILE}",
                "authLevel=STANDARD")
