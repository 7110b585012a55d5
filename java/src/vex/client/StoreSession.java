package vex.client;

import java.security.cert.CertificateException;
import java.security.cert.X509Certificate;
import java.util.List;
import vex.jni.VCTKError;

/**
 * One open store that signs with any of its certificates, for a KeyStore and its keys. If it is not closed, it is closed
 * some time after the KeyStore and the keys became unreachable. Any thread may call any method.
 */
final class StoreSession {
    /** Signed only to get a certificate; the signature is thrown away. */
    private static final String CERTIFICATE_REQUEST = "This signature only carries its certificate.";

    private static final String LIST_CERTIFICATES = "list=certificates";

    private final Session session;
    private final boolean listsCertificates;
    private final Reaper.Ticket ticket;

    private StoreSession(Session session, boolean listsCertificates) {
        this.session = session;
        this.listsCertificates = listsCertificates;
        ticket = Reaper.register(this, session);
    }

    static StoreSession open(String store) throws SigningException {
        boolean lists = StoreText.isUri(store) && !StoreText.hasAttribute(store, "list")
            && Toolkit.knowsAttribute(LIST_CERTIFICATES);
        String listing = lists ? StoreText.withAttribute(store, LIST_CERTIFICATES) : store;
        return new StoreSession(Session.open(listing, true, "chain=root"), lists);
    }

    List<CertificateInfo> certificates() throws SigningException {
        return CertificateInfo.parseList(session.certificateList(Selection.ALL), listsCertificates);
    }

    /**
     * Returns the certificate and its chain; only the certificate if Java cannot read another one of the chain. With a
     * toolkit that does not list them, a signature is made to get them.
     */
    X509Certificate[] chain(CertificateInfo wanted) throws SigningException, CertificateException {
        if (wanted.chain() != null) {
            return Certificates.listed(wanted.chain(), wanted.fingerprint());
        }
        SigningException first = null;
        for (Digest digest : Digest.values()) {
            try {
                return chain(wanted.fingerprint(), digest.toString());
            } catch (SigningException e) {
                // A key for RSASSA-PSS may be restricted to another digest.
                if (e.number() != VCTKError.SIGN_FAILED || wanted.keyAlgorithm() != KeyAlgorithm.RSA_PSS) {
                    throw e;
                }
                first = first == null ? e : first;
            }
        }
        throw first;
    }

    private X509Certificate[] chain(String wanted, String digest) throws SigningException, CertificateException {
        if (session.hasChain()) {
            try {
                return Certificates.chain(request(wanted, digest, CmsForm.Certificates.CHAIN), wanted);
            } catch (CertificateException e) {
                // The leaf alone is better than no key.
            }
        }
        return Certificates.chain(request(wanted, digest, CmsForm.Certificates.SIGNER), wanted);
    }

    private byte[] request(String signer, String digest, CmsForm.Certificates certificates) throws SigningException {
        return session.signP7(Selection.of(signer), digest, CERTIFICATE_REQUEST,
            new CmsForm(true, certificates));
    }

    /** Whether the toolkit has this name for a way to sign. */
    boolean knowsDigest(String digest) {
        return session.knowsDigest(digest);
    }

    /** @param signer the fingerprint of the certificate */
    byte[] sign(String signer, String digest, byte[] data) throws SigningException {
        return session.signP1(Selection.of(signer), digest, data);
    }

    /** Later calls throw {@link IllegalStateException}. Calls in progress finish normally. May be repeated. */
    void close() {
        ticket.close();
    }
}
