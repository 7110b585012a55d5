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
 * What texts are in the encoding of the process locale: the JDK's charset of that name, put right where the C library
 * of this machine sees a character otherwise, which says what the locale is. That is asked with the iconv command.
 * (GB 18030 has several editions, which differ in some thirty characters.)
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

    /** How many characters the JDK and the C library encode differently. */
    int differences() {
        return otherwise.size();
    }

    boolean has(int codePoint) {
        byte[] bytes = otherwise.get(codePoint);
        return bytes != null ? bytes != NONE : encoder.canEncode(Character.toString(codePoint));
    }

    /** Nothing for a text with a character that the locale does not have, an unpaired surrogate among others. */
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
        // Each character on a line of its own, whose end is 0A in every encoding that a locale may have.
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
        iconv.waitFor();  // its status says only that some characters were left out

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

    /** All that there are but the line end. */
    private static int[] characters() {
        return java.util.stream.IntStream.rangeClosed(1, Character.MAX_CODE_POINT)
            .filter(c -> c != '\n' && (c < Character.MIN_SURROGATE || c > Character.MAX_SURROGATE))
            .toArray();
    }
}
