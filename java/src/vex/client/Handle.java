package vex.client;

import vex.jni.TAVClientJNI;
import vex.jni.VCTKError;

/**
 * A native handle that remembers its settings, so that only different ones are set again. For one thread at a time.
 *
 * <p>After a failure, the same thread asks for its number and text at once, without anything in between that may wait.
 * So they always belong to the failed call, also on a virtual thread, which may change its carrier when it waits.
 */
final class Handle {
    /** In characters. Many threads with many handles may leave as many signatures of this length in the toolkit. */
    private static final int MOST_KEPT = 1 << 14;
    private static final String NOT_BASE64 = "-";

    private static final TAVClientJNI NATIVES = new TAVClientJNI();

    /** A native that returns a text. */
    interface Text {
        String apply(TAVClientJNI natives, long handle);
    }

    final long number;
    private final int chooseSingle;
    private Selection selection = Selection.ALL;  // null: unknown, because the toolkit refused a filter
    private String digest;                        // null: never set, so that the toolkit's own default signs

    private Handle(long number, boolean chooseSingle) {
        this.number = number;
        this.chooseSingle = chooseSingle ? 1 : 0;
    }

    /** @param store the URI; no exception contains it */
    static Handle open(String store, boolean chooseSingle) throws SigningException {
        long number = NATIVES.Initialize(null, store);
        if (number == 0) {
            int error = (int) NATIVES.GetLastError(0);
            throw error == VCTKError.OK
                ? SigningException.of(VCTKError.INTERNAL, "the toolkit did not open the store and gave no reason")
                : new SigningException(error, VCTKError.message(error));
        }
        Handle handle = new Handle(number, chooseSingle);
        try {
            // The first call on a handle whose store could not be opened fails with the reason.
            handle.require("", NATIVES.SetChooseSingleCert(number, handle.chooseSingle));
            return handle;
        } catch (SigningException | RuntimeException | Error e) {
            handle.close();
            throw e;
        }
    }

    /** Opens another handle of the same store, for a toolkit that {@linkplain Toolkit#sharesStores shares stores}. */
    Handle another() throws SigningException {
        return open(Toolkit.SHARED_STORE + Long.toUnsignedString(number), chooseSingle != 0);
    }

    boolean has(Selection wanted) {
        return wanted.equals(selection);
    }

    /**
     * A toolkit that knows no names for digests given as such is never asked to go back to its default.
     *
     * @param wanted null for the toolkit's default
     */
    boolean hasDigest(String wanted) {
        return digest == null ? wanted == null : digest.equals(Digest.orDefault(wanted));
    }

    void select(Selection wanted) throws SigningException {
        if (has(wanted)) {
            return;
        }
        selection = null;
        require("Clearing the filters: ", NATIVES.ClearFilter(number));
        for (Filter filter : wanted.filters()) {
            String value = NativeText.require(
                "The value of the filter " + filter.name(), filter.value(), VCTKError.FILTER_VALUE);
            require("Filter " + filter.name() + " \"" + value + "\": ",
                NATIVES.AddFilter(number, filter.type(), value));
        }
        selection = wanted;
    }

    /** @param wanted null for the toolkit's default; a refused name changes nothing */
    void setDigest(String wanted) throws SigningException {
        if (!hasDigest(wanted)) {
            String name =
                NativeText.require("The digest algorithm", Digest.orDefault(wanted), VCTKError.DIGEST_UNKNOWN);
            require("Digest algorithm \"" + name + "\": ", NATIVES.SetDigestAlg(number, name));
            digest = name;
        }
    }

    String text(Text call) throws SigningException {
        String result = call.apply(NATIVES, number);
        if (result == null) {
            throw failure("");
        }
        return result;
    }

    /** @return Base64 */
    String signature(Text call) throws SigningException {
        String result = text(call);
        if (result.length() > MOST_KEPT) {
            // The toolkit keeps the last signature of each thread until the thread signs again or ends. A sign call
            // that fails makes it free the signature, and the call after it removes the error.
            NATIVES.P7Sign(number, NOT_BASE64, 1, 0);
            NATIVES.SetChooseSingleCert(number, chooseSingle);
        }
        return result;
    }

    /** No method may be called afterwards. */
    void close() {
        NATIVES.Finalize(number);
    }

    /**
     * @param what the beginning of the message if the call has failed
     * @param status of a native that the calling thread has just called
     */
    private void require(String what, long status) throws SigningException {
        if (status != 0) {
            throw failure(what);
        }
    }

    /** The exception for the failed call that the calling thread has just made. */
    private SigningException failure(String what) {
        int error = (int) NATIVES.GetLastError(number);
        String message = NATIVES.GetLastErrorMessage(number);
        // A call that fails when memory runs out may leave the last error unchanged. So the old error is removed here:
        // a successful call removes it, and this one changes no setting.
        NATIVES.SetChooseSingleCert(number, chooseSingle);
        if (error == VCTKError.OK) {
            return SigningException.of(VCTKError.INTERNAL,
                what + "the toolkit gave no reason; the process may be out of memory");
        }
        return new SigningException(error, what + (message == null ? VCTKError.message(error) : message));
    }
}
