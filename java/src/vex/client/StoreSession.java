package vex.client;

import java.security.cert.CertificateException;
import java.security.cert.X509Certificate;
import java.util.EnumSet;
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
        return new StoreSession(Session.open(store, true, "chain=root"));
    }

    synchronized List<CertificateInfo> certificates() throws SigningException {
        fingerprint = null;
        session.clearFilters();
        return CertificateInfo.parseList(session.certificateList());
    }

    /** Returns the certificate and its chain; only the certificate if Java cannot read another one of the chain. */
    synchronized X509Certificate[] chain(String wanted) throws SigningException, CertificateException {
        select(wanted, CERTIFICATE_DIGEST);
        if (session.hasChain()) {
            try {
                return Certificates.chain(request(CmsOption.INCLUDE_CHAIN), wanted);
            } catch (CertificateException e) {
                // See above.
            }
        }
        return Certificates.chain(request(CmsOption.INCLUDE_CERTIFICATE), wanted);
    }

    private byte[] request(CmsOption certificates) throws SigningException {
        return session.signP7(CERTIFICATE_REQUEST, EnumSet.of(CmsOption.DETACHED, certificates));
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
