package vex.client;

import java.security.cert.CertificateException;
import java.security.cert.X509Certificate;
import java.util.List;

/**
 * One open store that signs with any of its certificates, for a KeyStore and its keys. It is closed some time after the
 * KeyStore and the keys became unreachable. Any thread may call any method; calls run one after the other.
 */
final class StoreSession {
    /** Signed only to get a certificate; the signature is thrown away. */
    private static final String CERTIFICATE_REQUEST = "This signature only carries its certificate.";
    private static final String CERTIFICATE_DIGEST = "SHA-256";

    private final Session session;
    private String fingerprint;  // of the certificate in the handle's filter; null when unknown
    private String digest;       // the handle's digest algorithm; null when unknown

    private StoreSession(Session session) {
        this.session = session;
        Reaper.register(this, session);
    }

    static StoreSession open(String store) throws SigningException {
        return new StoreSession(Session.open(store, true));
    }

    synchronized List<CertificateInfo> certificates() throws SigningException {
        fingerprint = null;
        session.clearFilters();
        return CertificateInfo.parseList(session.certificateList());
    }

    synchronized X509Certificate certificate(String wanted) throws SigningException, CertificateException {
        select(wanted, CERTIFICATE_DIGEST);
        return Certificates.find(session.signP7(CERTIFICATE_REQUEST, true, true), wanted);
    }

    synchronized byte[] sign(String signer, String digestName, byte[] data) throws SigningException {
        select(signer, digestName);
        return session.signP1(data);
    }

    private void select(String wanted, String digestName) throws SigningException {
        if (!wanted.equals(fingerprint)) {
            fingerprint = null;
            session.clearFilters();
            session.addFilter(Filter.fingerprint(wanted));
            fingerprint = wanted;
        }
        if (!digestName.equals(digest)) {
            session.setDigest(digestName);
            digest = digestName;
        }
    }
}
