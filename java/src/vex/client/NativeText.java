package vex.client;

import java.nio.ByteBuffer;
import java.nio.CharBuffer;
import java.nio.charset.Charset;
import java.nio.charset.CharsetEncoder;
import java.nio.charset.CoderResult;
import java.util.Base64;
import vex.jni.VCTKError;

/** Texts and data in the form that the natives take. Any thread may call any method. */
final class NativeText {
    /** The natives refuse longer texts without giving a reason. */
    static final int MAX_CHARACTERS = (Integer.MAX_VALUE - 4) / 4;
    /** The number of bytes whose Base64 form has MAX_CHARACTERS. */
    static final int MAX_BYTES = MAX_CHARACTERS / 4 * 3;

    private static final int PIECE = 1 << 13;

    private NativeText() {}

    /** Returns the text to sign if the natives can pass all of it to the toolkit. */
    static String requireToSign(String text) throws SigningException {
        return require("The text", text, VCTKError.DATA_EMPTY, ", or sign the bytes instead of the text",
            ", or sign text.getBytes(StandardCharsets.UTF_8), which does not depend on the locale");
    }

    /**
     * Returns a setting if the natives can pass all of it to the toolkit.
     *
     * @param emptyNumber the error number for an empty text
     */
    static String require(String what, String text, int emptyNumber) throws SigningException {
        return require(what, text, emptyNumber, "", "");
    }

    private static String require(String what, String text, int emptyNumber, String insteadOfNul,
            String insteadOfLocale) throws SigningException {
        if (text.isEmpty()) {
            throw SigningException.of(emptyNumber, what + " is empty");
        }
        if (text.length() > MAX_CHARACTERS) {
            throw SigningException.tooLarge(what + " has more than " + MAX_CHARACTERS + " characters");
        }
        boolean ascii = true;
        for (int i = 0; i < text.length(); ++i) {
            char unit = text.charAt(i);
            ascii &= unit < 0x80;
            if (unit == 0) {
                throw SigningException.notEncodable(
                    what + " has U+0000 at index " + i + "; remove it" + insteadOfNul);
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
                + localeEncoding() + ") cannot encode; start Java under a UTF-8 locale, such as LC_ALL=C.UTF-8"
                + insteadOfLocale);
        }
        return text;
    }

    private static String localeEncoding() {
        return System.getProperty("sun.jnu.encoding", "UTF-8");
    }

    /**
     * True also when Java does not know the encoding: the toolkit then refuses what it cannot encode. In pieces,
     * because CharsetEncoder.canEncode needs memory for all of the bytes, and fails where they are more than 1 GiB.
     */
    private static boolean isEncodable(String text) {
        Charset charset;
        try {
            charset = Charset.forName(localeEncoding());
        } catch (IllegalArgumentException e) {
            return true;
        }
        if (!charset.canEncode()) {
            return true;
        }
        CharsetEncoder encoder = charset.newEncoder();
        CharBuffer characters = CharBuffer.wrap(text);
        ByteBuffer piece = ByteBuffer.allocate(PIECE);
        CoderResult result;
        do {
            piece.clear();
            result = encoder.encode(characters, piece, true);
        } while (result.isOverflow());
        return !result.isError();
    }

    static SigningException empty() {
        return SigningException.of(VCTKError.DATA_EMPTY, "the data to sign has no bytes");
    }

    static String base64(byte[] data) throws SigningException {
        if (data.length == 0) {
            throw empty();
        }
        if (data.length > MAX_BYTES) {
            throw SigningException.tooLarge("The data to sign has more than " + MAX_BYTES + " bytes");
        }
        return Base64.getEncoder().encodeToString(data);
    }
}
