package vex.client;

import java.nio.charset.Charset;
import java.util.Base64;
import java.util.Map;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.locks.ReentrantLock;
import vex.jni.TAVClientJNI;
import vex.jni.VCTKError;

/**
 * An open handle. Turns failures into exceptions, and finalizes the handle exactly once, never while a native uses it.
 * Any thread may call any method.
 *
 * <p>After a failure, the same thread asks for its number and text at once. So they always belong to the failed call,
 * whatever other threads do with the handle.
 */
final class Session {
    private static final TAVClientJNI NATIVES = new TAVClientJNI();
    private static final Map<String, Boolean> KNOWN_ATTRIBUTES = new ConcurrentHashMap<>();

    /** The natives refuse longer texts without giving a reason. */
    static final int MAX_CHARACTERS = (Integer.MAX_VALUE - 4) / 4;
    /** The number of bytes whose Base64 form has MAX_CHARACTERS. */
    static final int MAX_BYTES = MAX_CHARACTERS / 4 * 3;

    /** Of a toolkit that knows names for digests given as such. Other toolkits are never asked to go back to it. */
    private static final String DEFAULT_DIGEST = "SHA-256";

    private static final int CLOSED = Integer.MIN_VALUE;

    final long handle;
    private final int chooseSingle;
    /** Whether signatures can contain the certificates of the signer's issuers. */
    private final boolean hasChain;
    /**
     * Held from the setting of the digest algorithm to the end of a signature with it. This costs no time: the toolkit
     * makes the signatures of one handle one after the other.
     */
    private final ReentrantLock digestLock = new ReentrantLock();
    private String digest;  // guarded by digestLock; null: never set, so that the toolkit's own default signs
    private final Set<String> knownDigests = ConcurrentHashMap.newKeySet();
    private volatile Boolean refusesUnknownDigests;  // null: not tried
    /** The number of calls in progress. The sign bit is set when the session is closed. */
    private final AtomicInteger state = new AtomicInteger();

    private Session(long handle, boolean chooseSingle, boolean hasChain) {
        this.handle = handle;
        this.chooseSingle = chooseSingle ? 1 : 0;
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
        if (!StoreText.hasChain(store)) {
            boolean known = knowsAttribute("chain=store");
            return open(known ? StoreText.withAttribute(store, chain) : store, chooseSingle, known);
        }
        if (!knowsAttribute("chain=store")) {
            throw SigningException.notSupported(
                "The toolkit cannot include a chain; open the store without chainFile, withChain and chain=");
        }
        return open(store, chooseSingle, true);
    }

    /** Asks the toolkit once, with a store that does not exist: so no PIN is tried. */
    static boolean knowsAttribute(String attribute) {
        return KNOWN_ATTRIBUTES.computeIfAbsent(attribute, unknown -> {
            long handle = NATIVES.Initialize(null, "file:/proc/no-such-store?" + unknown);
            if (handle != 0) {
                NATIVES.Finalize(handle);
            }
            return handle == 0 && NATIVES.GetLastError(0) == VCTKError.STORE_NOT_FOUND;
        });
    }

    private static Session open(String store, boolean chooseSingle, boolean hasChain) throws SigningException {
        long handle = NATIVES.Initialize(null, requireText("The store URI", store));
        if (handle == 0) {
            int number = (int) NATIVES.GetLastError(0);
            throw number == VCTKError.OK
                ? SigningException.of(VCTKError.INTERNAL, "the toolkit did not open the store and gave no reason")
                : new SigningException(number, VCTKError.message(number));
        }
        Session session = new Session(handle, chooseSingle, hasChain);
        try {
            session.setting("Single choice", natives -> natives.SetChooseSingleCert(handle, session.chooseSingle));
        } catch (SigningException | RuntimeException | Error e) {
            session.close();
            throw e;
        }
        return session;
    }

    /** Sets the digest algorithm, for signatures that name none. */
    void setDigest(String name) throws SigningException {
        digestLock.lock();
        try {
            applyDigest(name);
        } finally {
            digestLock.unlock();
        }
    }

    /** Whether the toolkit has this way to sign. A refusal changes nothing. */
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
            setDigest(name);
            return true;
        } catch (SigningException e) {
            return false;
        }
    }

    private void applyDigest(String name) throws SigningException {
        String checked = requireText("The digest algorithm", name);
        setting("Digest algorithm \"" + name + "\"", natives -> natives.SetDigestAlg(handle, checked));
        digest = name;
        knownDigests.add(name);
    }

    void addFilter(Filter filter) throws SigningException {
        String value = requireText("The value of the filter " + filter.name(), filter.value());
        setting("Filter " + filter.name() + " \"" + value + "\"",
            natives -> natives.AddFilter(handle, filter.type(), value));
    }

    void clearFilters() throws SigningException {
        setting("Clearing the filters", natives -> natives.ClearFilter(handle));
    }

    /** @param digestName as the toolkit takes it; null for its default */
    byte[] signP1(String digestName, String text) throws SigningException {
        String checked = requireText("The text", text);
        return signature(digestName, natives -> natives.P1SignString(handle, checked));
    }

    byte[] signP1(String digestName, byte[] data) throws SigningException {
        String base64 = toBase64(data);
        return signature(digestName, natives -> natives.P1Sign(handle, base64));
    }

    byte[] signP7(String digestName, String text, CmsForm form) throws SigningException {
        String checked = requireText("The text", text);
        int certificates = certificates(form);
        return signature(digestName, natives -> natives.P7SignString(handle, checked, detached(form), certificates));
    }

    byte[] signP7(String digestName, byte[] data, CmsForm form) throws SigningException {
        String base64 = toBase64(data);
        int certificates = certificates(form);
        return signature(digestName, natives -> natives.P7Sign(handle, base64, detached(form), certificates));
    }

    private static int detached(CmsForm form) {
        return form.isDetached() ? 1 : 0;
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

    String certificateList() throws SigningException {
        return text(natives -> natives.GetCertList(handle));
    }

    /** Finalizes the handle now, or lets the last of the calls in progress do it. */
    void close() {
        int before = state.getAndUpdate(calls -> calls | CLOSED);
        if (before == 0) {
            NATIVES.Finalize(handle);
        }
    }

    private void enter() {
        state.updateAndGet(calls -> {
            if (calls < 0) {
                throw new IllegalStateException("The signing client is closed");
            }
            return calls + 1;
        });
    }

    private void leave() {
        if (state.decrementAndGet() == CLOSED) {
            NATIVES.Finalize(handle);
        }
    }

    private interface Setting {
        long apply(TAVClientJNI natives);
    }

    private interface Text {
        String apply(TAVClientJNI natives);
    }

    private void setting(String what, Setting call) throws SigningException {
        enter();
        try {
            if (call.apply(NATIVES) != 0) {
                throw failure(what + ": ");
            }
        } finally {
            leave();
        }
    }

    private String text(Text call) throws SigningException {
        enter();
        try {
            String result = call.apply(NATIVES);
            if (result == null) {
                throw failure("");
            }
            return result;
        } finally {
            leave();
        }
    }

    private byte[] signature(String digestName, Text call) throws SigningException {
        digestLock.lock();
        try {
            String wanted = digestName == null && digest != null ? DEFAULT_DIGEST : digestName;
            if (wanted != null && !wanted.equals(digest)) {
                applyDigest(wanted);
            }
            return Base64.getDecoder().decode(text(call));
        } finally {
            digestLock.unlock();
        }
    }

    /** The exception for the failed call that the calling thread has just made. */
    private SigningException failure(String what) {
        int number = (int) NATIVES.GetLastError(handle);
        String message = NATIVES.GetLastErrorMessage(handle);
        // A call that fails when memory runs out may leave the last error unchanged. So the old error is removed here:
        // a successful call removes it, and this one changes no setting.
        NATIVES.SetChooseSingleCert(handle, chooseSingle);
        if (number == VCTKError.OK) {
            return SigningException.of(VCTKError.INTERNAL,
                what + "the toolkit gave no reason; the process may be out of memory");
        }
        return new SigningException(number, what + (message == null ? VCTKError.message(number) : message));
    }

    /** Returns the text if the natives can pass all of it to the toolkit. */
    static String requireText(String what, String text) throws SigningException {
        if (text.isEmpty()) {
            throw SigningException.of(VCTKError.DATA_EMPTY, what + " is empty");
        }
        if (text.length() > MAX_CHARACTERS) {
            throw SigningException.of(VCTKError.TOO_LARGE, what + " has more than " + MAX_CHARACTERS + " characters");
        }
        boolean ascii = true;
        for (int i = 0; i < text.length(); ++i) {
            char unit = text.charAt(i);
            ascii &= unit < 0x80;
            if (unit == 0) {
                throw SigningException.notEncodable(what + " has U+0000 at index " + i
                    + "; remove it, or sign the bytes instead of the text");
            }
            if (Character.isSurrogate(unit)) {
                if (!Character.isSurrogatePair(unit, i + 1 < text.length() ? text.charAt(i + 1) : 0)) {
                    throw SigningException.notEncodable(what + " has an unpaired surrogate at index " + i
                        + ", which has no encoding; remove it");
                }
                ++i;
            }
        }
        if (!ascii && !isEncodable(text)) {
            throw SigningException.notEncodable(what + " has a character that the process locale ("
                + localeEncoding() + ") cannot encode; start Java under a UTF-8 locale, such as LC_ALL=C.UTF-8, or sign"
                + " text.getBytes(StandardCharsets.UTF_8), which does not depend on the locale");
        }
        return text;
    }

    private static String localeEncoding() {
        return System.getProperty("sun.jnu.encoding", "UTF-8");
    }

    /** True also when Java does not know the encoding: the toolkit then refuses what it cannot encode. */
    private static boolean isEncodable(String text) {
        Charset charset;
        try {
            charset = Charset.forName(localeEncoding());
        } catch (IllegalArgumentException e) {
            return true;
        }
        return !charset.canEncode() || charset.newEncoder().canEncode(text);
    }

    static SigningException empty() {
        return SigningException.of(VCTKError.DATA_EMPTY, "the data to sign has no bytes");
    }

    private static String toBase64(byte[] data) throws SigningException {
        if (data.length == 0) {
            throw empty();
        }
        if (data.length > MAX_BYTES) {
            throw SigningException.of(VCTKError.TOO_LARGE, "the data to sign has more than " + MAX_BYTES + " bytes");
        }
        return Base64.getEncoder().encodeToString(data);
    }
}
