"""Throw-away TLS material made with the openssl command: a CA and a server
certificate for NAME and *.NAME signed by it (EC P-256). They are valid from
a day ago for three days, so that a daemon whose wall clock is stepped back
by hours still accepts them. Files land in the given work directory as
PREFIX-ca.pem/.key and PREFIX-server.pem/.key."""
import os
import subprocess


def _openssl(work, *args):
    # Made as if a day ago: their validity starts then.
    subprocess.run(["faketime", "-f", "-1d", "openssl", *args], check=True, capture_output=True, cwd=work, timeout=60)


def make_ca(work, prefix, subject):
    """Makes PREFIX-ca.pem and PREFIX-ca.key; returns the certificate's path."""
    _openssl(work, "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "3",
             "-subj", "/CN=" + subject, "-keyout", prefix + "-ca.key", "-out", prefix + "-ca.pem",
             "-addext", "basicConstraints=critical,CA:TRUE", "-addext", "keyUsage=critical,keyCertSign,cRLSign")
    return os.path.join(work, prefix + "-ca.pem")


def make_server_certificate(work, prefix, domain):
    """Makes PREFIX-server.pem and PREFIX-server.key for domain and *.domain,
    signed by PREFIX's CA; returns (certificate path, key path)."""
    server = prefix + "-server"
    _openssl(work, "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
             "-subj", "/CN=" + domain, "-keyout", server + ".key", "-out", server + ".csr")
    extensions = server + ".ext"
    with open(os.path.join(work, extensions), "w") as ext:
        ext.write("subjectAltName=DNS:%s,DNS:*.%s\nbasicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n"
                  % (domain, domain))
    _openssl(work, "x509", "-req", "-in", server + ".csr", "-CA", prefix + "-ca.pem", "-CAkey", prefix + "-ca.key",
             "-CAcreateserial", "-days", "3", "-out", server + ".pem", "-extfile", extensions)
    return os.path.join(work, server + ".pem"), os.path.join(work, server + ".key")
