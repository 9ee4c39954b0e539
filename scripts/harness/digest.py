"""Digests of the files tests and the demo stream, to prove them byte-exact."""
import hashlib


def file_sha256(path):
    """The hex SHA-256 of a file, read in blocks (the samples are large)."""
    digest = hashlib.sha256()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(1 << 20), b""):
            digest.update(block)
    return digest.hexdigest()
