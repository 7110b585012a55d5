package vex.client;

import java.nio.ByteBuffer;
import java.nio.CharBuffer;
import java.nio.charset.CharacterCodingException;
import java.nio.charset.StandardCharsets;
import java.nio.file.FileSystems;
import java.nio.file.Path;
import java.util.Arrays;
import vex.jni.VCTKError;

/**
 * Builds store URIs, with the PIN or the name of its file. They are ASCII, whatever characters a file name has. Uses no
 * regular expressions: their first use takes a quarter of the time to open the first store in a JVM.
 */
final class StoreText {
    private static final String DEMO = "demo:";
    /** Why a second file with issuers is refused. */
    static final String ONE_CHAIN_FILE =
        "has a file with issuers (chain-source) already; put all their certificates into one file";
    private static final String[] SCHEMES = {DEMO, "file:", "pkcs11:"};

    private StoreText() {}

    /** @throws IllegalArgumentException if the path is not in the default file system */
    static String ofFile(Path file) {
        requireDefaultFileSystem(file);
        // The raw path holds the bytes of the name on the disk, percent-encoded. An ampersand would end an attribute.
        return "file:" + file.toAbsolutePath().toUri().getRawPath().replace("&", "%26");
    }

    static Path requireDefaultFileSystem(Path file) {
        if (!file.getFileSystem().equals(FileSystems.getDefault())) {
            throw new IllegalArgumentException("The path is not in the default file system: " + file);
        }
        return file;
    }

    static String withPinFile(String store, Path pinFile) {
        return withAttribute(store, "pin-source=" + ofFile(pinFile));
    }

    /** @throws IllegalArgumentException if the PIN has U+0000: a store has no such PIN */
    static void requirePin(char[] pin) {
        for (char unit : pin) {
            if (unit == 0) {
                throw new IllegalArgumentException(
                    "The PIN has U+0000; pass an array that is as long as the PIN and was not wiped");
            }
        }
    }

    /**
     * @throws IllegalArgumentException if the PIN has U+0000 or an unpaired surrogate
     * @throws SigningException if there is no place for a PIN
     */
    static String withPin(String store, char[] pin) throws SigningException {
        requireNoPin(store);
        requirePin(pin);
        ByteBuffer bytes;
        try {
            bytes = StandardCharsets.UTF_8.newEncoder().encode(CharBuffer.wrap(pin));
        } catch (CharacterCodingException e) {
            throw new IllegalArgumentException("The PIN is not valid Unicode: it has an unpaired surrogate");
        }
        StringBuilder attribute = new StringBuilder("pin-value=");
        while (bytes.hasRemaining()) {
            int b = bytes.get() & 0xff;
            attribute.append('%').append(Character.forDigit(b >> 4, 16)).append(Character.forDigit(b & 15, 16));
        }
        Arrays.fill(bytes.array(), (byte) 0);
        return withAttribute(store, attribute.toString());
    }

    /** @throws SigningException if the store's URI has a PIN already, or its kind of store takes none */
    static void requireNoPin(String store) throws SigningException {
        if (hasAttribute(store, "pin-value") || hasAttribute(store, "pin-source")) {
            throw new SigningException(VCTKError.URI_MALFORMED, "A PIN is given, and the store's URI has pin-value or"
                + " pin-source as well; leave one of them out");
        }
        if (beginsWith(store, DEMO)) {
            throw new SigningException(VCTKError.URI_MALFORMED, "The demo store has no PIN; open it without one");
        }
    }

    /** The signatures contain the certificates of issuers that are in this file. */
    static String withChainFile(String store, Path file) {
        return withAttribute(store, "chain-source=" + ofFile(file));
    }

    /** Time stamps have to lead to a certificate that is in this file. */
    static String withStampAuthority(String store, Path file) {
        return withAttribute(store, "tsa-ca=" + ofFile(file));
    }

    /** Whether the text is a URI of the toolkit that comes with this class. Other toolkits may have other texts. */
    static boolean isUri(String store) {
        for (String scheme : SCHEMES) {
            if (beginsWith(store, scheme)) {
                return true;
            }
        }
        return false;
    }

    /** The text may have the upper-case letters of ASCII in place of the beginning's lower-case ones. */
    private static boolean beginsWith(String text, String beginning) {
        if (text.length() < beginning.length()) {
            return false;
        }
        for (int i = 0; i < beginning.length(); ++i) {
            char c = text.charAt(i);
            if ((c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c) != beginning.charAt(i)) {
                return false;
            }
        }
        return true;
    }

    static boolean hasChain(String store) {
        return hasAttribute(store, "chain");
    }

    static boolean hasChainFile(String store) {
        return hasAttribute(store, "chain-source");
    }

    /** @throws SigningException if the store's URI has a file with issuers already */
    static void requireNoChainFile(String store) throws SigningException {
        if (hasChainFile(store)) {
            throw new SigningException(
                VCTKError.URI_MALFORMED, "chainFile was called, and the store's URI " + ONE_CHAIN_FILE);
        }
    }

    /** Whether the toolkit itself has the signatures stamped. */
    static boolean hasStamps(String store) {
        return hasAttribute(store, "tsa");
    }

    /** The toolkit does not decode the names of attributes. */
    static boolean hasAttribute(String store, String name) {
        int query = store.indexOf('?');
        return query >= 0 && (store.startsWith(name + "=", query + 1) || store.indexOf("&" + name + "=", query) >= 0);
    }

    static String withAttribute(String store, String attribute) {
        return store + (store.indexOf('?') < 0 ? '?' : '&') + attribute;
    }
}
