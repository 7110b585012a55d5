package vex.demo;

import java.nio.ByteBuffer;
import java.nio.CharBuffer;
import java.nio.charset.CharacterCodingException;
import java.nio.charset.Charset;
import java.nio.charset.CharsetEncoder;
import java.nio.charset.StandardCharsets;
import java.util.Base64;

/** What is to be signed: as the argument of a signing method, and as the bytes that the signature is of. */
class Content {
    private final boolean text;
    private final String argument;
    private final byte[] bytes;

    private Content(boolean text, String argument, byte[] bytes) throws DemoException {
        if (bytes.length == 0) {
            throw new DemoException("There is nothing to sign: the input is empty.");
        }
        this.text = text;
        this.argument = argument;
        this.bytes = bytes;
    }

    /** A text; signed are its bytes in the process locale's encoding. */
    static Content ofText(String text) throws DemoException {
        Charset charset = localeCharset();
        if (text.indexOf('\0') >= 0) {
            throw new DemoException("The text contains the character U+0000, with which it cannot be signed as a text."
                + " Use --binary to sign the bytes of a file.");
        }
        CharsetEncoder encoder = charset.newEncoder();
        for (int i = 0; i < text.length(); i += Character.charCount(text.codePointAt(i))) {
            int character = text.codePointAt(i);
            if (!encoder.canEncode(Character.toString(character))) {
                throw new DemoException(String.format("The text cannot be encoded: the process locale (%s) has no"
                    + " character U+%04X. Start Java under a UTF-8 locale, for example with LC_ALL=C.UTF-8.",
                    charset.name(), character));
            }
        }
        return new Content(true, text, text.getBytes(charset));
    }

    /** Bytes in Base64; white space in it does not count. */
    static Content ofBase64(String base64) throws DemoException {
        try {
            return ofBytes(Base64.getDecoder().decode(base64.replaceAll("\\s", "")));
        } catch (IllegalArgumentException e) {
            throw new DemoException("The input is not Base64: " + e.getMessage() + ".");
        }
    }

    static Content ofBytes(byte[] bytes) throws DemoException {
        return new Content(false, Base64.getEncoder().encodeToString(bytes), bytes.clone());
    }

    /** Whether the argument is the text itself; if not it is Base64. */
    boolean isText() {
        return text;
    }

    String argument() {
        return argument;
    }

    byte[] bytes() {
        return bytes.clone();
    }

    /** The text in the bytes of a file, which has to be UTF-8 whatever the locale is. */
    static String decodeUtf8(String source, byte[] bytes) throws DemoException {
        try {
            CharBuffer decoded = StandardCharsets.UTF_8.newDecoder().decode(ByteBuffer.wrap(bytes));
            return decoded.toString();
        } catch (CharacterCodingException e) {
            throw new DemoException(source + " is not a UTF-8 text. Use --binary to sign its bytes.");
        }
    }

    /** The encoding of the process locale, which Java keeps under this name since version 17. */
    private static Charset localeCharset() {
        return Charset.forName(System.getProperty("native.encoding"));
    }
}
