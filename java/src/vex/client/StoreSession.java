package vex.client;

import java.security.cert.CertificateException;
import java.security.cert.X509Certificate;
import java.util.List;

/**
 * One open store that signs with any of its certificates, for a KeyStore and its keys. If it is not closed, it is
 * closed some time after the KeyStore and the keys became unreachable. Any thread may call any method.
 */
final class StoreSession {
    final Session session;
    private final Reaper.Ticket ticket;

    private StoreSession(Session session) {
        this.session = session;
        ticket = Reaper.register(this, session::close);
    }

    static StoreSession open(String store) throws SigningException {
        return new StoreSession(Session.open(store, true, "chain=root"));
    }

    List<CertificateInfo> certificates() throws SigningException {
        return session.certificates(Selection.ALL);
    }

    /** See {@link SignerChains#of}. */
    X509Certificate[] chain(CertificateInfo wanted) throws SigningException, CertificateException {
        return SignerChains.of(session, wanted);
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
