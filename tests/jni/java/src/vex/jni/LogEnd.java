package vex.jni;

import java.io.IOException;
import java.io.RandomAccessFile;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.time.Duration;
import java.time.Instant;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * Waits until the writer of the log has written all queued records. The thread that uses it calls no other natives, and
 * no other thread calls natives meanwhile.
 */
final class LogEnd {
    private static final Path LOG = Path.of(System.getenv("VEX_TEST_LOG_DIR"), "PILog.txt");
    private static final int TAIL = 1024;
    private static final Duration LONGEST = Duration.ofMinutes(5);
    private static final Pattern LAST = Pattern.compile("\\[T(-?\\d+)\\] [^\\n]*\\((\\d+)\\)\\]: [^\\n]*\\R\\R$");

    /** The source lines in the records of two calls that refuse their handle, and so write only one record. */
    private static final String[] LINES = {"428", "202"};

    private final TAVClientJNI natives;
    private String thread;
    private int marks;

    LogEnd(TAVClientJNI natives) {
        this.natives = natives;
    }

    void await() throws IOException, InterruptedException {
        String line = LINES[marks++ % LINES.length];
        if (line.equals(LINES[0])) {
            natives.Finalize(0);
        } else {
            natives.ClearFilter(0);
        }
        Instant end = Instant.now().plus(LONGEST);
        while (!isLast(line)) {
            if (Instant.now().isAfter(end)) {
                throw new AssertionError("the log has not been written after " + LONGEST);
            }
            Thread.sleep(1);
        }
    }

    /** The first record tells the number of this thread. */
    private boolean isLast(String line) throws IOException {
        if (!LOG.toFile().exists()) {
            return false;
        }
        try (RandomAccessFile file = new RandomAccessFile(LOG.toFile(), "r")) {
            byte[] tail = new byte[(int) Math.min(TAIL, file.length())];
            file.seek(file.length() - tail.length);
            int count = Math.max(0, file.read(tail));
            Matcher last = LAST.matcher(new String(tail, 0, count, StandardCharsets.ISO_8859_1));
            if (!last.find() || !last.group(2).equals(line)) {
                return false;
            }
            thread = thread == null ? last.group(1) : thread;
            return last.group(1).equals(thread);
        }
    }
}
