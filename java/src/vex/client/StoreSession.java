package vex.client;

import java.security.cert.CertificateException;
import java.security.cert.X509Certificate;
import java.util.List;

/**
 * One open store that signs with any of its certificates, for a key store and its keys. It is released when none of
 * them is reachable any more. Any thread may call any method; calls wait for each other.
 */
final class StoreSession {
    /** Signed to get at a certificate. Nobody sees the signature. */
    private static final String CERTIFICATE_REQUEST = "This signature only carries its certificate.";
    private static final String CERTIFICATE_DIGEST = "SHA-256";

    private final Session session;
    private String fingerprint;  // that the handle's filter names; null after a failure
    private String digest;       // as the last

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
