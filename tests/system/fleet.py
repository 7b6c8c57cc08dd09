"""Certificates and secrets of a fleet, made with the openssl command."""

import subprocess


def openssl(*arguments):
    subprocess.run(["openssl", *map(str, arguments)], check=True, capture_output=True)


class Authority:
    """A certificate authority in a directory of its own."""

    def __init__(self, directory):
        self.directory = directory
        directory.mkdir()
        self.certificate = directory / "ca.pem"
        self.key = directory / "ca.key"
        openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                "-keyout", self.key, "-out", self.certificate, "-days", "2",
                "-subj", "/CN=Test fleet authority")

    def issue(self, name, alternative_name="IP:127.0.0.1"):
        """(certificate, key) of an agent."""
        certificate = self.directory / f"{name}.pem"
        key = self.directory / f"{name}.key"
        request = self.directory / f"{name}.csr"
        extensions = self.directory / f"{name}.ext"
        extensions.write_text(f"subjectAltName={alternative_name}\n")
        openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                "-keyout", key, "-out", request, "-subj", f"/CN={name}")
        openssl("x509", "-req", "-in", request, "-CA", self.certificate, "-CAkey", self.key,
                "-CAcreateserial", "-days", "2", "-extfile", extensions, "-out", certificate)
        return certificate, key
