package vex.client;

import java.io.ByteArrayInputStream;
import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.security.cert.Certificate;
import java.security.cert.CertificateEncodingException;
import java.security.cert.CertificateException;
import java.security.cert.CertificateFactory;
import java.security.cert.X509Certificate;
import java.util.Collection;

/** Fingerprints of X.509 certificates, and the search for one. */
final class Certificates {
    private Certificates() {}

    /** In the form of {@link CertificateInfo#fingerprint}. */
    static String fingerprint(X509Certificate certificate) throws CertificateEncodingException {
        try {
            StringBuilder digits = new StringBuilder();
            for (byte b : MessageDigest.getInstance("SHA-256").digest(certificate.getEncoded())) {
                digits.append(String.format("%02X", b & 0xff));
            }
            return digits.toString();
        } catch (NoSuchAlgorithmException e) {
            throw new IllegalStateException("This Java has no SHA-256", e);
        }
    }

    /** Returns the certificate with this fingerprint from a CMS signature. */
    static X509Certificate find(byte[] cms, String fingerprint) throws CertificateException {
        CertificateFactory factory = CertificateFactory.getInstance("X.509");
        Collection<? extends Certificate> certificates;
        try {
            certificates = factory.generateCertificates(new ByteArrayInputStream(cms));
        } catch (CertificateException e) {
            throw new CertificateException(
                "Java cannot read the certificate " + fingerprint + ": " + e.getMessage(), e);
        }
        for (Certificate certificate : certificates) {
            X509Certificate candidate = (X509Certificate) certificate;
            if (fingerprint(candidate).equals(fingerprint)) {
                return candidate;
            }
        }
        throw new CertificateException("The toolkit's signature does not contain the certificate " + fingerprint);
    }
}
