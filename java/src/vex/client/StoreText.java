package vex.client;

import java.nio.ByteBuffer;
import java.nio.CharBuffer;
import java.nio.charset.CharacterCodingException;
import java.nio.charset.StandardCharsets;
import java.nio.file.FileSystems;
import java.nio.file.Path;
import java.util.Arrays;

/** Initialisation texts: which store, and its PIN or where that is. All of it is ASCII, whatever the file is called. */
final class StoreText {
    private StoreText() {}

    /** @throws IllegalArgumentException if the path is not one of the host's files */
    static String ofFile(Path file) {
        if (!file.getFileSystem().equals(FileSystems.getDefault())) {
            throw new IllegalArgumentException("Not a file of this host: " + file);
        }
        // The bytes of the name as they are on the disk, percent-encoded. An ampersand would end an attribute.
        return "file:" + file.toAbsolutePath().toUri().getRawPath().replace("&", "%26");
    }

    static String withPinFile(String store, Path pinFile) {
        return withAttribute(store, "pin-source=" + ofFile(pinFile));
    }

    /** @throws IllegalArgumentException if the PIN holds half of a surrogate pair */
    static String withPin(String store, char[] pin) {
        ByteBuffer bytes;
        try {
            bytes = StandardCharsets.UTF_8.newEncoder().encode(CharBuffer.wrap(pin));
        } catch (CharacterCodingException e) {
            throw new IllegalArgumentException("The PIN is not Unicode text");
        }
        StringBuilder attribute = new StringBuilder("pin-value=");
        while (bytes.hasRemaining()) {
            int b = bytes.get() & 0xff;
            attribute.append('%').append(Character.forDigit(b >> 4, 16)).append(Character.forDigit(b & 15, 16));
        }
        Arrays.fill(bytes.array(), (byte) 0);
        return withAttribute(store, attribute.toString());
    }

    private static String withAttribute(String store, String attribute) {
        return store + (store.indexOf('?') < 0 ? '?' : '&') + attribute;
    }
}
