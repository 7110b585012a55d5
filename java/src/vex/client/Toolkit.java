package vex.client;

import java.util.Map;
import java.util.concurrent.ConcurrentHashMap;
import vex.jni.TAVClientJNI;
import vex.jni.VCTKError;

/**
 * What the loaded toolkit knows. Each question is asked once, with a store that does not exist, so no PIN is tried. Any
 * thread may call any method.
 */
final class Toolkit {
    /** Before the number of a handle: the URI of its opened store. */
    static final String SHARED_STORE = "handle:";

    /** A store that cannot be opened gets a handle, whose calls fail with the reason and its detail. */
    static final String ERRORS_AT_HANDLE = "errors=handle";

    /** The list of certificates has the names in the store and the certificates themselves, with their chains. */
    static final String LIST_CERTIFICATES = "list=certificates";

    /** The URI of a store without keys, which adds time stamps to signatures. */
    static final String STAMPS = "stamp:";

    /** The Base64 form of one byte. */
    private static final String DATA = "AA==";
    private static final String NO_STORE = "file:/proc/no-such-store?";
    private static final TAVClientJNI NATIVES = new TAVClientJNI();
    private static final Map<String, Boolean> ANSWERS = new ConcurrentHashMap<>();

    private Toolkit() {}

    /** Whether the URI of a store may have the attribute. */
    static boolean knowsAttribute(String attribute) {
        return failsWith(VCTKError.STORE_NOT_FOUND, NO_STORE + attribute);
    }

    /** Whether {@link #ERRORS_AT_HANDLE} is known. */
    static boolean explainsFailures() {
        String uri = NO_STORE + ERRORS_AT_HANDLE;
        Boolean known = ANSWERS.get(uri);
        if (known != null) {
            return known;
        }
        long handle = NATIVES.Initialize(null, uri);
        if (handle == 0) {
            return remember(uri, false);
        }
        boolean refused = NATIVES.SetChooseSingleCert(handle, 0) != 0;
        boolean explained = refused && NATIVES.GetLastError(handle) == VCTKError.STORE_NOT_FOUND;
        NATIVES.Finalize(handle);
        return remember(uri, explained);
    }

    /** Whether {@link #SHARED_STORE} is known. */
    static boolean sharesStores() {
        return failsWith(VCTKError.INVALID_HANDLE, SHARED_STORE + 0);
    }

    /**
     * Whether {@link #STAMPS} is known. A toolkit that opens its own store whatever the URI is would sign the data: it
     * does not know the URI.
     */
    static boolean addsStamps() {
        Boolean known = ANSWERS.get(STAMPS);
        if (known != null) {
            return known;
        }
        long handle = NATIVES.Initialize(null, STAMPS);
        if (handle == 0) {
            return remember(STAMPS, false);
        }
        boolean adds = NATIVES.SetChooseSingleCert(handle, 0) == 0 && NATIVES.P1Sign(handle, DATA) == null;
        NATIVES.Finalize(handle);
        return remember(STAMPS, adds);
    }

    private static boolean failsWith(int error, String uri) {
        Boolean known = ANSWERS.get(uri);
        if (known != null) {
            return known;
        }
        long handle = NATIVES.Initialize(null, uri);
        if (handle == 0) {
            return remember(uri, NATIVES.GetLastError(0) == error);
        }
        NATIVES.Finalize(handle);
        return remember(uri, false);
    }

    /** Two threads may ask the same at once. A lock would make virtual threads wait while they hold their carriers. */
    private static boolean remember(String uri, boolean known) {
        ANSWERS.put(uri, known);
        return known;
    }
}
