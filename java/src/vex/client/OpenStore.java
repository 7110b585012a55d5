package vex.client;

import java.security.cert.CertificateException;
import java.security.cert.X509Certificate;
import java.util.List;

/**
 * The use of an open store by one loaded KeyStore and its keys. It ends when the KeyStore is closed or its provider
 * logs out. Any thread may call any method.
 */
final class OpenStore {
    private final StoreSession session;
    /** The provider's login uses the session as well, so the end of this use does not close it. */
    private final boolean shared;
    private volatile String end;  // why the store is closed; null: it is open

    OpenStore(StoreSession session, boolean shared) {
        this.session = session;
        this.shared = shared;
    }

    /** Signatures in progress are completed. */
    void close(String reason) {
        end = reason;
        if (!shared) {
            session.close();
        }
    }

    /** @throws IllegalStateException if the store is closed */
    void requireOpen() {
        if (end != null) {
            throw new IllegalStateException(end);
        }
    }

    StoreSession session() {
        return session;
    }

    /** Throws like {@link #requireOpen}. */
    List<CertificateInfo> certificates() throws SigningException {
        requireOpen();
        try {
            return session.certificates();
        } catch (IllegalStateException e) {
            throw ended(e);
        }
    }

    /** See {@link SignerChains#of}. Throws like {@link #requireOpen}. */
    X509Certificate[] chain(CertificateInfo wanted) throws SigningException, CertificateException {
        requireOpen();
        try {
            return session.chain(wanted);
        } catch (IllegalStateException e) {
            throw ended(e);
        }
    }

    /** Whether the toolkit has this name for a way to sign. Throws like {@link #requireOpen}. */
    boolean knowsDigest(String digest) {
        requireOpen();
        try {
            return session.knowsDigest(digest);
        } catch (IllegalStateException e) {
            throw ended(e);
        }
    }

    /** Throws like {@link #requireOpen}. */
    byte[] sign(String fingerprint, String digest, byte[] data) throws SigningException {
        requireOpen();
        try {
            return session.sign(fingerprint, digest, data);
        } catch (IllegalStateException e) {
            throw ended(e);
        }
    }

    /** The store was closed during a call. */
    private IllegalStateException ended(IllegalStateException e) {
        return end == null ? e : new IllegalStateException(end, e);
    }
}
