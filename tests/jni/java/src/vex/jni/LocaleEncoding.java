package vex.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.io.ByteArrayOutputStream;
import java.nio.charset.Charset;
import java.nio.charset.CharsetEncoder;
import java.nio.charset.StandardCharsets;
import java.util.Arrays;
import java.util.HashMap;
import java.util.Map;
import java.util.Optional;

/**
 * Encodes texts as the process locale does. It uses the JDK's charset of that name, corrected for the characters that
 * the C library of this machine encodes differently; the iconv command shows which ones. (GB 18030 has several
 * editions, which differ in some thirty characters.)
 */
final class LocaleEncoding {
    private static final byte[] NONE = {};

    private final CharsetEncoder encoder;
    private final Map<Integer, byte[]> otherwise = new HashMap<>();

    private LocaleEncoding(Charset charset) {
        encoder = charset.newEncoder();
    }

    static LocaleEncoding ofProcess() throws Exception {
        String name = System.getProperty("native.encoding");
        LocaleEncoding encoding = new LocaleEncoding(Charset.forName(name));
        if (encoding.encoder.maxBytesPerChar() > 1 && !name.equals("UTF-8")) {
            encoding.learnFromIconv(name);
        }
        return encoding;
    }

    String name() {
        return encoder.charset().name();
    }

    /** The number of characters that the JDK and the C library encode differently. */
    int differences() {
        return otherwise.size();
    }

    boolean has(int codePoint) {
        byte[] bytes = otherwise.get(codePoint);
        return bytes != null ? bytes != NONE : encoder.canEncode(Character.toString(codePoint));
    }

    /** Empty if the locale cannot encode a character of the text, such as an unpaired surrogate. */
    Optional<byte[]> encode(String text) {
        if (!text.codePoints().allMatch(this::has)) {
            return Optional.empty();
        }
        if (text.codePoints().noneMatch(otherwise::containsKey)) {
            return Optional.of(text.getBytes(encoder.charset()));
        }
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        text.codePoints().forEach(c -> {
            byte[] character = otherwise.get(c);
            bytes.writeBytes(character != null ? character : Character.toString(c).getBytes(encoder.charset()));
        });
        return Optional.of(bytes.toByteArray());
    }

    private void learnFromIconv(String name) throws Exception {
        // One character a line; the line end is 0A in the encodings of all locales.
        StringBuilder lines = new StringBuilder();
        int[] codePoints = characters();
        for (int codePoint : codePoints) {
            lines.appendCodePoint(codePoint).append('\n');
        }
        Process iconv = new ProcessBuilder("iconv", "-c", "-f", "UTF-8", "-t", name).start();
        byte[] all = lines.toString().getBytes(StandardCharsets.UTF_8);
        Thread writer = new Thread(() -> {
            try (var input = iconv.getOutputStream()) {
                input.write(all);
            } catch (java.io.IOException e) {
                throw new java.io.UncheckedIOException(e);
            }
        });
        writer.start();
        byte[] encoded = iconv.getInputStream().readAllBytes();
        writer.join();
        iconv.waitFor();  // its status only tells that it left some characters out

        int line = 0;
        int begin = 0;
        for (int i = 0; i < encoded.length; ++i) {
            if (encoded[i] == '\n') {
                learn(codePoints[line++], Arrays.copyOfRange(encoded, begin, i));
                begin = i + 1;
            }
        }
        assertEquals(codePoints.length, line, "lines from iconv");
    }

    private void learn(int codePoint, byte[] bytes) {
        String text = Character.toString(codePoint);
        byte[] expected = encoder.canEncode(text) ? text.getBytes(encoder.charset()) : NONE;
        if (!Arrays.equals(expected, bytes)) {
            otherwise.put(codePoint, bytes.length == 0 ? NONE : bytes);
        }
    }

    /** All characters except the line end. */
    private static int[] characters() {
        return java.util.stream.IntStream.rangeClosed(1, Character.MAX_CODE_POINT)
            .filter(c -> c != '\n' && (c < Character.MIN_SURROGATE || c > Character.MAX_SURROGATE))
            .toArray();
    }
}
