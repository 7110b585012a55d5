package vex.interop;

import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.Arrays;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import vex.jni.Run;

/** The versions of the software that the tests use. */
final class Versions {
    private Versions() {}

    /** @param what Java or OpenSSL */
    static boolean isAtLeast(String what, String least) throws Exception {
        String found = switch (what) {
            case "Java" -> Integer.toString(Runtime.version().feature());
            case "OpenSSL" -> printed("openssl", "version");
            default -> throw new IllegalArgumentException("the version of " + what);
        };
        return Arrays.compare(numbers(found), numbers(least)) >= 0;
    }

    private static String printed(String... command) throws Exception {
        String output = Run.of(new ProcessBuilder(command)).succeeded().output();
        Matcher version = Pattern.compile("[0-9]+(\\.[0-9]+)+").matcher(output);
        assertTrue(version.find(), output);
        return version.group();
    }

    private static int[] numbers(String version) {
        return Arrays.stream(version.split("\\.")).mapToInt(Integer::parseInt).toArray();
    }
}
