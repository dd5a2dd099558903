"""The independent judge of certificates, and an outside PKI: both by another library's hand."""

import base64
import datetime

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec, ed25519, padding, rsa
from cryptography.x509.oid import ExtensionOID, NameOID


def utc(seconds):
    return datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc).replace(tzinfo=None)


def seconds(moment):
    return int(moment.replace(tzinfo=datetime.timezone.utc).timestamp())


def load(pem):
    return x509.load_pem_x509_certificate(pem)


def load_der(der):
    return x509.load_der_x509_certificate(der)


def load_request(pem):
    """The signing request, its signature verified. Its version number follows the settings' and is 2 on the wire,
    which this library refuses: it reads a copy that says 0, and the signature is checked over the original."""
    der = base64.b64decode(b"".join(pem.split(b"-----")[2].split()))
    place = der.index(b"\x02\x01\x02", 0, 16) + 2
    csr = x509.load_der_x509_csr(der[:place] + b"\0" + der[place + 1:])
    signed = csr.tbs_certrequest_bytes
    place = signed.index(b"\x02\x01\0", 0, 12) + 2
    _verify(csr.public_key(), csr, signed[:place] + b"\2" + signed[place + 1:])
    return csr


def _verify(key, signed, content):
    """Raises cryptography.exceptions.InvalidSignature unless the key made the signature over the content."""
    if isinstance(key, ec.EllipticCurvePublicKey):
        key.verify(signed.signature, content, ec.ECDSA(signed.signature_hash_algorithm))
    elif isinstance(key, rsa.RSAPublicKey):
        key.verify(signed.signature, content, padding.PKCS1v15(), signed.signature_hash_algorithm)
    elif isinstance(key, ed25519.Ed25519PublicKey):
        key.verify(signed.signature, content)
    else:
        raise AssertionError("a key of a type that the tests do not know")


def load_key(pem):
    return serialization.load_pem_private_key(pem, None)


def common_name(certificate):
    return certificate.subject.get_attributes_for_oid(NameOID.COMMON_NAME)[0].value


def alternative_names(certificate):
    """The extension's entries in their order, as ("DNS", text) and ("IP", text)."""
    names = certificate.extensions.get_extension_for_oid(ExtensionOID.SUBJECT_ALTERNATIVE_NAME).value
    return [("DNS", name.value) if isinstance(name, x509.DNSName) else ("IP", str(name.value)) for name in names]


def public_bytes(holder):
    """The public key of a certificate, a request or a private key."""
    return holder.public_key().public_bytes(serialization.Encoding.DER,
                                            serialization.PublicFormat.SubjectPublicKeyInfo)


def is_signed_by(certificate, issuer):
    """Raises cryptography.exceptions.InvalidSignature unless the issuer's key made the signature."""
    _verify(issuer.public_key(), certificate, certificate.tbs_certificate_bytes)
    return True


def _name(common):
    return x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, common)])


class Pki:
    """A certificate authority outside the device."""

    def __init__(self, name="Outside CA"):
        self.key = ec.generate_private_key(ec.SECP256R1())
        self.name = _name(name)
        self.certificate = self._signed(self.name, self.key.public_key(), is_ca=True)

    def pem(self):
        return self.certificate.public_bytes(serialization.Encoding.PEM)

    def leaf(self, common):
        key = ec.generate_private_key(ec.SECP256R1())
        return self._signed(_name(common), key.public_key()).public_bytes(serialization.Encoding.PEM)

    def sign(self, csr_pem, days=90, start=None):
        """A certificate for a request; `start` in seconds since the epoch."""
        csr = load_request(csr_pem)
        return self._signed(csr.subject, csr.public_key(), days=days,
                            start=start).public_bytes(serialization.Encoding.PEM)

    def _signed(self, subject, public_key, days=90, start=None, is_ca=False):
        begin = utc(start) if start is not None else datetime.datetime.utcnow() - datetime.timedelta(days=1)
        builder = (x509.CertificateBuilder().subject_name(subject).issuer_name(self.name).public_key(public_key)
                   .serial_number(x509.random_serial_number()).not_valid_before(begin)
                   .not_valid_after(begin + datetime.timedelta(days=days))
                   .add_extension(x509.BasicConstraints(is_ca, None), critical=True))
        return builder.sign(self.key, hashes.SHA256())


def issue(pki, common):
    """A certificate for somebody who has the key: (certificate, key), both in PEM."""
    key = ec.generate_private_key(ec.SECP256R1())
    certificate = pki._signed(_name(common), key.public_key())
    return (certificate.public_bytes(serialization.Encoding.PEM),
            key.private_bytes(serialization.Encoding.PEM, serialization.PrivateFormat.PKCS8,
                              serialization.NoEncryption()))
