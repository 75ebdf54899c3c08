"""Certificates and keys, made by the openssl command."""

import subprocess

NEW_KEY_OPTIONS = {
    "P-256": ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256"],
    "RSA": ["-newkey", "rsa:2048"],
}


def _openssl(*arguments, clock=()):
    subprocess.run([*clock, "openssl", *map(str, arguments)], check=True, capture_output=True)


def make_pair(certificate, key, name="tavlo", kind="P-256", clock=()):
    """A self-signed certificate for 127.0.0.1 whose common name is `name`. It holds from now on, or from
    the time at which the command `clock` starts a program."""
    _openssl("req", "-x509", *NEW_KEY_OPTIONS[kind], "-nodes", "-days", "2",
             "-subj", f"/CN={name}", "-addext", "subjectAltName=IP:127.0.0.1",
             "-keyout", key, "-out", certificate, clock=clock)


def make_issued_pair(certificate, key, directory):
    """A certificate file with a chain of two: one for 127.0.0.1 and the authority's own."""
    authority, authority_key = directory / "authority.crt", directory / "authority.key"
    request = directory / "request"
    make_pair(authority, authority_key, name="authority")
    _openssl("req", "-new", *NEW_KEY_OPTIONS["P-256"], "-nodes", "-subj", "/CN=leaf",
             "-keyout", key, "-out", request)
    _openssl("x509", "-req", "-in", request, "-CA", authority, "-CAkey", authority_key,
             "-CAcreateserial", "-days", "2", "-out", certificate)
    certificate.write_bytes(certificate.read_bytes() + authority.read_bytes())


def encrypt_key(key, pass_phrase):
    encrypted = key.with_suffix(".encrypted")
    _openssl("ec", "-aes256", "-in", key, "-passout", f"pass:{pass_phrase}", "-out", encrypted)
    encrypted.replace(key)
