"""curl as the outside client of a relay: one request, and what came back."""
import os
import subprocess
import tempfile


def fetch(url, *options, work_dir=None):
    """Runs curl on url with extra options; returns (status, head bytes,
    body bytes), status 0 when curl got no answer."""
    with tempfile.TemporaryDirectory(dir=work_dir) as out:
        head_file, body_file = os.path.join(out, "head"), os.path.join(out, "body")
        result = subprocess.run(
            ["curl", "-sS", "--noproxy", "*", "--max-time", "120", "-D", head_file, "-o", body_file,
             "-w", "%{http_code}", *options, url],
            capture_output=True, timeout=180)
        head = body = b""
        if os.path.exists(head_file):
            with open(head_file, "rb") as f:
                head = f.read()
        if os.path.exists(body_file):
            with open(body_file, "rb") as f:
                body = f.read()
    return int(result.stdout or b"0"), head, body
