package vex.client;

import java.util.Base64;
import java.util.List;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;
import vex.jni.TAVClientJNI;
import vex.jni.VCTKError;

/**
 * An open store. Signs with the certificates of a selection, turns failures into exceptions, and finalizes its handles
 * exactly once, never while a native uses them. Any thread may call any method.
 *
 * <p>There are no lambdas on the way to a program's first signature: the first one of a JVM takes as long as many
 * signatures.
 */
final class Session {
    private final HandlePool pool;
    /** Whether signatures can contain the certificates of the signer's issuers. */
    private final boolean hasChain;
    private final Set<String> knownDigests = ConcurrentHashMap.newKeySet();
    private volatile Boolean refusesUnknownDigests;  // null: not tried

    private Session(HandlePool pool, boolean hasChain) {
        this.pool = pool;
        this.hasChain = hasChain;
    }

    /**
     * Opens a store for signatures that can contain a chain. With a toolkit that does not know chains, they cannot.
     *
     * @param store the URI; no exception contains it
     * @param chain the attribute that asks for chains, unless the URI has one
     */
    static Session open(String store, boolean chooseSingle, String chain) throws SigningException {
        if (!StoreText.isUri(store)) {
            return open(store, chooseSingle, false);
        }
        String uri = store;
        if (!StoreText.hasAttribute(uri, "errors") && Toolkit.explainsFailures()) {
            uri = StoreText.withAttribute(uri, Toolkit.ERRORS_AT_HANDLE);
        }
        if (!StoreText.hasAttribute(uri, "list") && Toolkit.knowsAttribute(Toolkit.LIST_CERTIFICATES)) {
            uri = StoreText.withAttribute(uri, Toolkit.LIST_CERTIFICATES);
        }
        return openWithChain(uri, chooseSingle, chain);
    }

    private static Session openWithChain(String store, boolean chooseSingle, String chain) throws SigningException {
        boolean known = Toolkit.knowsAttribute("chain=store");
        if (!StoreText.hasChain(store)) {
            return open(known ? StoreText.withAttribute(store, chain) : store, chooseSingle, known);
        }
        if (!known) {
            throw SigningException.notSupported(
                "The toolkit cannot include a chain; open the store without chainFile, withChain and chain=");
        }
        return open(store, chooseSingle, true);
    }

    private static Session open(String store, boolean chooseSingle, boolean hasChain) throws SigningException {
        Handle first = Handle.open(NativeText.require("The store URI", store, VCTKError.URI_MALFORMED), chooseSingle);
        return new Session(HandlePool.of(first), hasChain);
    }

    /** Fails if the toolkit refuses a filter or the digest algorithm. */
    void check(Selection selection, String digest) throws SigningException {
        pool.call(selection, digest, new Selected(selection, digest, null));
    }

    /** Whether the toolkit has this way to sign. */
    boolean knowsDigest(String name) {
        return knownDigests.contains(name) || refusesUnknownDigests() && accepts(name);
    }

    /** A toolkit that accepts every name would sign a digest as if it were the data. */
    private boolean refusesUnknownDigests() {
        if (refusesUnknownDigests == null) {
            refusesUnknownDigests = !accepts(Digest.PREHASHED);
        }
        return refusesUnknownDigests;
    }

    private boolean accepts(String name) {
        try {
            pool.call(Selection.ALL, name, handle -> {
                handle.setDigest(name);
                return null;
            });
            knownDigests.add(name);
            return true;
        } catch (SigningException e) {
            return false;
        }
    }

    /** @param digest as the toolkit takes it; null for its default */
    byte[] signP1(Selection selection, String digest, String text) throws SigningException {
        String checked = NativeText.requireToSign(text);
        return sign(selection, digest, new Handle.Text() {
            @Override
            public String apply(TAVClientJNI natives, long handle) {
                return natives.P1SignString(handle, checked);
            }
        });
    }

    byte[] signP1(Selection selection, String digest, byte[] data) throws SigningException {
        String base64 = NativeText.base64(data);
        return sign(selection, digest, new Handle.Text() {
            @Override
            public String apply(TAVClientJNI natives, long handle) {
                return natives.P1Sign(handle, base64);
            }
        });
    }

    byte[] signP7(Selection selection, String digest, String text, CmsForm form) throws SigningException {
        String checked = NativeText.requireToSign(text);
        int detached = form.isDetached() ? 1 : 0;
        int certificates = certificates(form);
        return sign(selection, digest, new Handle.Text() {
            @Override
            public String apply(TAVClientJNI natives, long handle) {
                return natives.P7SignString(handle, checked, detached, certificates);
            }
        });
    }

    byte[] signP7(Selection selection, String digest, byte[] data, CmsForm form) throws SigningException {
        String base64 = NativeText.base64(data);
        int detached = form.isDetached() ? 1 : 0;
        int certificates = certificates(form);
        return sign(selection, digest, new Handle.Text() {
            @Override
            public String apply(TAVClientJNI natives, long handle) {
                return natives.P7Sign(handle, base64, detached, certificates);
            }
        });
    }

    /** A toolkit that knows chains takes 2 as "only the signer's certificate", and 1 as "with the chain". */
    private int certificates(CmsForm form) throws SigningException {
        if (form.certificates() != CmsForm.Certificates.CHAIN) {
            return form.certificates() == CmsForm.Certificates.NONE ? 0 : hasChain ? 2 : 1;
        }
        if (!hasChain) {
            throw SigningException.notSupported(
                "The toolkit cannot include a chain; leave out INCLUDE_CHAIN and pass the chain on yourself");
        }
        return 1;
    }

    /** Whether {@link CmsOption#INCLUDE_CHAIN} is possible. */
    boolean hasChain() {
        return hasChain;
    }

    List<CertificateInfo> certificates(Selection selection) throws SigningException {
        return CertificateInfo.parseList(certificateList(selection));
    }

    private String certificateList(Selection selection) throws SigningException {
        return pool.call(selection, null, handle -> {
            handle.select(selection);
            return handle.text(TAVClientJNI::GetCertList);
        });
    }

    /** @throws IllegalStateException if the session is closed */
    void requireOpen() {
        pool.requireOpen();
    }

    /** Does not wait: calls in progress finish normally, and the last of them releases the store. May be repeated. */
    void close() {
        pool.close();
    }

    HandlePool pool() {
        return pool;
    }

    private byte[] sign(Selection selection, String digest, Handle.Text call) throws SigningException {
        return Base64.getDecoder().decode(pool.call(selection, digest, new Selected(selection, digest, call)));
    }

    /** Gives a handle its settings, and makes a sign call with it. */
    private static final class Selected implements HandlePool.Call<String> {
        private final Selection selection;
        private final String digest;
        private final Handle.Text call;  // null: no sign call

        private Selected(Selection selection, String digest, Handle.Text call) {
            this.selection = selection;
            this.digest = digest;
            this.call = call;
        }

        @Override
        public String with(Handle handle) throws SigningException {
            handle.setDigest(digest);
            handle.select(selection);
            return call == null ? null : handle.signature(call);
        }
    }
}
