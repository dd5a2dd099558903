"""Certificate authorities run by other people's tools: `openssl ca`, GnuTLS `certtool` and cfssl."""

import json
import os
import shutil
import subprocess


class ToolFailed(AssertionError):
    pass


def run(*command, cwd=None, stdin=None):
    """What a tool prints; it must be installed and must succeed."""
    if shutil.which(command[0]) is None:
        raise ToolFailed(f"{command[0]} is not installed (openssl, gnutls-bin and golang-cfssl are needed)")
    done = subprocess.run(command, cwd=cwd, input=stdin, capture_output=True, check=False, timeout=120)
    if done.returncode != 0:
        raise ToolFailed(f"{' '.join(command)} ended with {done.returncode}:\n"
                         f"{done.stdout.decode(errors='replace')}{done.stderr.decode(errors='replace')}")
    return done.stdout


class ToolPki:
    """An authority in a folder of its own; a subclass for each tool."""

    def __init__(self, folder):
        self.folder = folder
        os.makedirs(folder, exist_ok=True)
        self._found()

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, content):
        with open(self.path(name), "wb") as file:
            file.write(content.encode() if isinstance(content, str) else content)
        return self.path(name)

    def read(self, name):
        with open(self.path(name), "rb") as file:
            return file.read()

    @property
    def ca_file(self):
        return self.path("ca.pem")

    def _found(self):
        raise NotImplementedError

    def sign(self, request):
        """The certificate for a PEM request, in PEM."""
        raise NotImplementedError


class OpensslCa(ToolPki):
    """A ledger, serial numbers and a policy that the request's subject has to meet."""

    SETTINGS = """
[ca]
default_ca = authority
[authority]
dir = .
database = index.txt
serial = serial
new_certs_dir = issued
certificate = ca.pem
private_key = ca.key
default_md = sha256
default_days = 90
policy = same_country
x509_extensions = leaf
copy_extensions = copy
unique_subject = no
[same_country]
countryName = match
stateOrProvinceName = supplied
localityName = optional
organizationName = supplied
organizationalUnitName = optional
commonName = supplied
emailAddress = optional
[leaf]
authorityKeyIdentifier = keyid
[req]
distinguished_name = name
prompt = no
x509_extensions = root
[name]
C = DE
O = Outside
CN = OpenSSL root
[root]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash
"""

    def _found(self):
        self.write("ca.cnf", self.SETTINGS)
        self.write("index.txt", "")
        self.write("serial", "01\n")
        os.makedirs(self.path("issued"), exist_ok=True)
        run("openssl", "req", "-x509", "-config", "ca.cnf", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
            "-nodes", "-keyout", "ca.key", "-out", "ca.pem", "-days", "3650", cwd=self.folder)

    def sign(self, request):
        self.write("request.pem", request)
        run("openssl", "ca", "-batch", "-config", "ca.cnf", "-notext", "-in", "request.pem", "-out", "leaf.pem",
            cwd=self.folder)
        return self.read("leaf.pem")


class Certtool(ToolPki):
    def _found(self):
        self.write("ca.tmpl", 'cn = "GnuTLS root"\norganization = "Outside"\nca\ncert_signing_key\n'
                              'expiration_days = 3650\n')
        # Names, key usage and extended key usage of the request; the tool adds a key identifier of its own and refuses
        # to honour that of the request beside it.
        self.write("leaf.tmpl", 'honor_crq_ext = 2.5.29.17\nhonor_crq_ext = 2.5.29.15\nhonor_crq_ext = 2.5.29.37\n'
                                'expiration_days = 90\n')
        run("certtool", "--generate-privkey", "--key-type", "ecdsa", "--curve", "secp256r1", "--outfile", "ca.key",
            cwd=self.folder)
        run("certtool", "--generate-self-signed", "--load-privkey", "ca.key", "--template", "ca.tmpl", "--outfile",
            "ca.pem", cwd=self.folder)

    def sign(self, request):
        self.write("request.pem", request)
        run("certtool", "--generate-certificate", "--load-request", "request.pem", "--load-ca-certificate", "ca.pem",
            "--load-ca-privkey", "ca.key", "--template", "leaf.tmpl", "--outfile", "leaf.pem", cwd=self.folder)
        return self.read("leaf.pem")


class Cfssl(ToolPki):
    """A root, and an intermediate authority that signs the requests."""

    KEY = {"algo": "ecdsa", "size": 256}

    def _found(self):
        self.write("policy.json", json.dumps({"signing": {"profiles": {
            "authority": {"usages": ["cert sign", "crl sign"], "expiry": "43800h",
                          "ca_constraint": {"is_ca": True, "max_path_len": 0, "max_path_len_zero": True}},
            "device": {"usages": ["digital signature", "server auth"], "expiry": "2160h"}}}}))
        root = self._bundle("gencert", "-initca", self._settings("root.json", "cfssl root", ca={"expiry": "87600h"}))
        self.write("ca.pem", root["cert"])
        self.write("root.key", root["key"])
        middle = self._bundle("gencert", "-ca", "ca.pem", "-ca-key", "root.key", "-config", "policy.json", "-profile",
                              "authority", self._settings("middle.json", "cfssl middle"))
        self.write("middle.pem", middle["cert"])
        self.write("middle.key", middle["key"])

    def _settings(self, name, common, **more):
        self.write(name, json.dumps({"CN": common, "key": self.KEY, "names": [{"O": "Outside"}], **more}))
        return name

    def _bundle(self, *arguments):
        return json.loads(run("cfssl", *arguments, cwd=self.folder))

    @property
    def intermediate(self):
        return self.read("middle.pem")

    def sign(self, request):
        self.write("request.pem", request)
        return self._bundle("sign", "-ca", "middle.pem", "-ca-key", "middle.key", "-config", "policy.json", "-profile",
                            "device", "request.pem")["cert"].encode()


def subject_hash(pem):
    """The hash that names a certificate in a folder of authorities."""
    return run("openssl", "x509", "-noout", "-subject_hash", stdin=pem).decode().strip()
