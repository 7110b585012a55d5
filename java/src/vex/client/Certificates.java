package vex.client;

import java.io.ByteArrayInputStream;
import java.security.GeneralSecurityException;
import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.security.cert.Certificate;
import java.security.cert.CertificateEncodingException;
import java.security.cert.CertificateException;
import java.security.cert.CertificateFactory;
import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.Base64;
import java.util.Collection;
import java.util.List;
import java.util.Locale;

/** Fingerprints and chains of X.509 certificates. */
final class Certificates {
    private Certificates() {}

    /** The only spelling of a fingerprint here: upper case, without colons. */
    static String normalized(String fingerprint) {
        return fingerprint.replace(":", "").toUpperCase(Locale.ROOT);
    }

    /** In the form of {@link CertificateInfo#fingerprint}. */
    static String fingerprint(X509Certificate certificate) throws CertificateEncodingException {
        try {
            byte[] digest = MessageDigest.getInstance("SHA-256").digest(certificate.getEncoded());
            return Hex.digits(digest, 0, digest.length);
        } catch (NoSuchAlgorithmException e) {
            throw new IllegalStateException("This Java has no SHA-256", e);
        }
    }

    /**
     * Returns the certificate with this fingerprint from a CMS signature, then its issuer, the issuer's issuer and so
     * on, as far as the signature contains them.
     */
    static X509Certificate[] chain(byte[] cms, String fingerprint) throws CertificateException {
        List<X509Certificate> others = read(cms, fingerprint);
        X509Certificate next = remove(others, fingerprint);
        List<X509Certificate> chain = new ArrayList<>();
        while (next != null) {
            chain.add(next);
            next = removeIssuer(others, next);
        }
        return chain.toArray(new X509Certificate[0]);
    }

    /**
     * Returns the listed certificates; only the first one if Java cannot read another one.
     *
     * @param fingerprint of the first one, for the message
     */
    static X509Certificate[] listed(String list, String fingerprint) throws CertificateException {
        List<X509Certificate> chain = new ArrayList<>();
        for (String base64 : list.split(",")) {
            ByteArrayInputStream der = new ByteArrayInputStream(Base64.getDecoder().decode(base64));
            try {
                chain.add((X509Certificate) CertificateFactory.getInstance("X.509").generateCertificate(der));
            } catch (CertificateException e) {
                if (chain.isEmpty()) {
                    throw unreadable(fingerprint, e);
                }
                return new X509Certificate[] {chain.get(0)};
            }
        }
        return chain.toArray(new X509Certificate[0]);
    }

    private static X509Certificate remove(List<X509Certificate> certificates, String fingerprint)
            throws CertificateException {
        for (X509Certificate certificate : certificates) {
            if (fingerprint(certificate).equals(fingerprint)) {
                certificates.remove(certificate);
                return certificate;
            }
        }
        throw new CertificateException("The toolkit's signature does not contain the certificate " + fingerprint);
    }

    /** Null: none of the certificates is the issuer's. The signature decides only between equal names. */
    private static X509Certificate removeIssuer(List<X509Certificate> certificates, X509Certificate subject) {
        X509Certificate found = null;
        for (X509Certificate certificate : certificates) {
            if (certificate.getSubjectX500Principal().equals(subject.getIssuerX500Principal())
                && (found == null || isSignedWith(subject, certificate))) {
                found = certificate;
            }
        }
        certificates.remove(found);
        return found;
    }

    private static boolean isSignedWith(X509Certificate subject, X509Certificate issuer) {
        try {
            subject.verify(issuer.getPublicKey());
            return true;
        } catch (GeneralSecurityException e) {
            return false;
        }
    }

    private static CertificateException unreadable(String fingerprint, CertificateException e) {
        return new CertificateException("Java cannot read the certificate " + fingerprint + ": " + e.getMessage(), e);
    }

    private static List<X509Certificate> read(byte[] cms, String fingerprint) throws CertificateException {
        CertificateFactory factory = CertificateFactory.getInstance("X.509");
        Collection<? extends Certificate> certificates;
        try {
            certificates = factory.generateCertificates(new ByteArrayInputStream(cms));
        } catch (CertificateException e) {
            throw unreadable(fingerprint, e);
        }
        List<X509Certificate> read = new ArrayList<>();
        for (Certificate certificate : certificates) {
            read.add((X509Certificate) certificate);
        }
        return read;
    }
}
