package vex.interop;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Optional;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * A table of docs/interoperability.md. A cell is "yes", "no (1)", or "from OpenSSL 3.5, else (1)". The number is
 * that of a note, which begins with a message in back quotes.
 */
final class Page {
    private static final Pattern CELL = Pattern.compile(
        "(?<yes>yes)|(no|from (?<what>[A-Z]\\w*) (?<version>[0-9.]+), else) \\((?<note>[0-9]+)\\)");
    private static final Pattern NOTE = Pattern.compile("(?m)^([0-9]+)\\. `([^`]+)`");

    private final List<String> columns;
    private final Map<String, List<String>> rows = new LinkedHashMap<>();
    private final Map<Integer, String> messages = new LinkedHashMap<>();

    /** @param corner the first cell of the table's head */
    Page(String corner) throws Exception {
        String page = Files.readString(Path.of(System.getProperty("vex.test.docs"), "interoperability.md"));
        Matcher table = Pattern.compile("(?m)^\\| " + Pattern.quote(corner) + " \\|.*\n\\|[-| ]+\\|\n((?:\\|.*\n)+)")
            .matcher(page);
        assertTrue(table.find(), () -> "no table with the corner " + corner);
        List<String> head = cells(table.group().lines().findFirst().get());
        columns = head.subList(1, head.size());
        table.group(1).lines().map(Page::cells).forEach(cells -> {
            assertEquals(columns.size() + 1, cells.size(), cells::toString);
            rows.put(cells.get(0), cells.subList(1, cells.size()));
        });
        Matcher note = NOTE.matcher(page);
        while (note.find()) {
            messages.put(Integer.parseInt(note.group(1)), note.group(2));
        }
    }

    private static List<String> cells(String line) {
        return Arrays.stream(line.substring(1, line.length() - 1).split("\\|")).map(String::strip).toList();
    }

    List<String> columns() {
        return columns;
    }

    List<String> rows() {
        return new ArrayList<>(rows.keySet());
    }

    /**
     * Returns the message with which a case fails on this machine; empty if it works.
     *
     * @param row and column, which the table has to have
     */
    Optional<String> refusal(String row, String column) throws Exception {
        assertTrue(rows.containsKey(row) && columns.contains(column), () -> "no cell for " + row + ", " + column);
        String cell = rows.get(row).get(columns.indexOf(column));
        Matcher parts = CELL.matcher(cell);
        assertTrue(parts.matches(), () -> "cell \"" + cell + "\" of " + row + ", " + column);
        if (parts.group("yes") != null) {
            return Optional.empty();
        }
        if (parts.group("what") != null && Versions.isAtLeast(parts.group("what"), parts.group("version"))) {
            return Optional.empty();
        }
        String message = messages.get(Integer.parseInt(parts.group("note")));
        assertNotNull(message, () -> "no note for the cell \"" + cell + "\"");
        return Optional.of(message);
    }
}
