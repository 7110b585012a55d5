package vex.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.lang.reflect.Field;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Map;
import java.util.TreeMap;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;

/** The numbers and texts of the Java classes are those of the native headers. */
@Tag("natives")
class ErrorNumbersTest {
    private static final Path HEADERS = Path.of(System.getProperty("vex.test.headers"));

    @Test
    void errorNumbersAreThoseOfTheHeader() throws Exception {
        Map<String, Long> expected = find("VCTKError.h", "VCTK_(?:E_)?(\\w+) = (\\d+),");
        assertTrue(expected.containsKey("OK") && expected.containsKey("NO_SIGNATURE"), expected::toString);
        assertEquals(expected, constants(VCTKError.class, ""));
    }

    @Test
    void errorTextsAreThoseOfTheHeader() throws Exception {
        Matcher entries = Pattern.compile("\\{VCTK_(?:E_)?(\\w+), \"([^\"]+)\"\\}").matcher(read("VCTKError.h"));
        Map<String, Long> numbers = constants(VCTKError.class, "");
        int found = 0;
        for (; entries.find(); ++found) {
            assertEquals(entries.group(2), VCTKError.message(numbers.get(entries.group(1))));
        }
        assertEquals(numbers.size(), found);
        assertEquals("Unknown error 9999", VCTKError.message(9999));
        assertEquals("Unknown error 4294967296", VCTKError.message(1L << 32));
    }

    @Test
    void filterTypesAreThoseOfTheHeader() throws Exception {
        Map<String, Long> expected = find("VCTKFilter.h", "VCTK_FILTER_(\\w+) = (\\d+);");
        assertFalse(expected.isEmpty());
        assertEquals(expected, constants(TAVClientJNI.class, "FILTER_"));
    }

    private static String read(String header) throws Exception {
        return Files.readString(HEADERS.resolve(header));
    }

    private static Map<String, Long> find(String header, String pattern) throws Exception {
        Map<String, Long> found = new TreeMap<>();
        Matcher matcher = Pattern.compile(pattern).matcher(read(header));
        while (matcher.find()) {
            found.put(matcher.group(1), Long.valueOf(matcher.group(2)));
        }
        return found;
    }

    private static Map<String, Long> constants(Class<?> owner, String prefix) throws Exception {
        Map<String, Long> found = new TreeMap<>();
        for (Field field : owner.getFields()) {
            if (field.getName().startsWith(prefix)) {
                found.put(field.getName().substring(prefix.length()), field.getLong(null));
            }
        }
        return found;
    }
}
