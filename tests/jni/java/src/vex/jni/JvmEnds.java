package vex.jni;

import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.BufferedReader;
import java.io.File;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Comparator;
import java.util.EnumMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;
import java.util.stream.Stream;

/**
 * A program that ends JVMs in every way. It fails if one of them crashes, ends with another status, leaves a log
 * without its first bytes, or is late: takes more than {@link #ALLOWED} seconds longer than JVMs that never loaded the
 * library. The log may delay the end of a process by one second.
 *
 * <p>A batch has one JVM for each way, two JVMs without the library, and one without it that pauses for a second at its
 * end. All are told to end at once. On a busy machine even the pausing JVM needs more than a second, so a JVM is not
 * late if it ends at most {@link #ALLOWED_BEHIND_PAUSE} seconds after it. A late JVM is tried again in a new batch; the
 * program fails if it is late each time.
 */
final class JvmEnds {
    /** Seconds; see the comment of the class for both. */
    private static final double ALLOWED = 1.1;
    private static final double ALLOWED_BEHIND_PAUSE = 0.1;
    private static final int ATTEMPTS = 4;
    private static final long LONGEST_SECONDS = 120;

    enum Way {
        RETURN(0),
        EXIT(7),
        HALT(9),
        SIGNAL(143),
        IN_FLIGHT(7),
        STALLED(7);

        private final int status;

        Way(int status) {
            this.status = status;
        }

        int status() {
            return status;
        }
    }

    enum With {
        NATIVES,
        NOTHING,
        PAUSE
    }

    private final Path directory;
    private final String store;
    private final Map<Way, List<Double>> excesses = new EnumMap<>(Way.class);
    private final List<Double> controls = new ArrayList<>();
    private final List<Double> pauses = new ArrayList<>();
    private int ends;
    private int overAllowed;
    private int askedAgain;

    private JvmEnds(Path directory, String store) {
        this.directory = directory;
        this.store = store;
    }

    /**
     * Ends the JVM with status 0 if all JVMs ended as expected.
     *
     * @throws Exception when something is wrong
     */
    public static void main(String[] args) throws Exception {
        new TAVClientJNI().GetLastError(0);
        int wanted = Amount.of("VEX_TEST_EXITS", Way.values().length);
        Path directory = Files.createTempDirectory("ends");
        JvmEnds jvms = new JvmEnds(directory, TestStore.writePem(
            directory.resolve("store.pem"), List.of(TestStore.identity("secp256r1", "CN=E", 1, 30, 0))));
        while (jvms.ends < wanted) {
            jvms.runBatch();
        }
        jvms.report();
    }

    private void runBatch() throws Exception {
        runBeside(List.of(Way.values()), 1);
    }

    /** Ends a batch of JVMs, and tries those again that were late. */
    private void runBeside(List<Way> ways, int attempt) throws Exception {
        List<Jvm> batch = new ArrayList<>();
        for (Way way : ways) {
            batch.add(new Jvm(way, With.NATIVES));
        }
        List<Jvm> without = List.of(new Jvm(Way.EXIT, With.NOTHING), new Jvm(Way.IN_FLIGHT, With.NOTHING));
        Jvm pausing = new Jvm(Way.EXIT, With.PAUSE);
        endTogether(Stream.of(batch, without, List.of(pausing)).flatMap(List::stream).toList());
        without.forEach(jvm -> controls.add(jvm.seconds()));
        pauses.add(pausing.seconds());
        double slowest = without.stream().mapToDouble(Jvm::seconds).max().orElseThrow();
        for (Jvm jvm : batch) {
            double excess = jvm.seconds() - slowest;
            double behindPause = jvm.seconds() - pausing.seconds();
            ++ends;
            excesses.computeIfAbsent(jvm.way, way -> new ArrayList<>()).add(excess);
            overAllowed += excess > ALLOWED ? 1 : 0;
            if (excess > ALLOWED && behindPause > ALLOWED_BEHIND_PAUSE) {
                System.out.printf("%s took %.3f s longer, %.3f s more than the pause%n", jvm.way, excess, behindPause);
                assertTrue(attempt < ATTEMPTS, jvm.way + " is late each time");
                ++askedAgain;
                runBeside(List.of(jvm.way), attempt + 1);
            }
        }
    }

    private static void endTogether(List<Jvm> jvms) throws Exception {
        for (Jvm jvm : jvms) {
            jvm.awaitReady();
        }
        for (Jvm jvm : jvms) {
            jvm.end();
        }
        for (Jvm jvm : jvms) {
            jvm.check();
        }
    }

    private void report() {
        System.out.printf("%d ends; %d without the library took %s%n", ends, controls.size(), spread(controls));
        System.out.printf("%d of these with a pause of a second took %s%n", pauses.size(), spread(pauses));
        System.out.println("Longer than those, in seconds:");
        excesses.forEach((way, values) -> System.out.printf("%-10s %5d  %s%n", way, values.size(), spread(values)));
        System.out.printf("%d took more than %.1f s longer; %d of them, more than %.1f s behind the pause, were "
            + "tried again%n", overAllowed, ALLOWED, askedAgain, ALLOWED_BEHIND_PAUSE);
    }

    private static String spread(List<Double> values) {
        double[] sorted = values.stream().mapToDouble(Double::doubleValue).sorted().toArray();
        return String.format("median %.3f, 99%% %.3f, longest %.3f", sorted[sorted.length / 2],
            sorted[(int) Math.ceil(sorted.length * 0.99) - 1], sorted[sorted.length - 1]);
    }

    /** A JVM of a batch; the constructor starts it. */
    private final class Jvm {
        private final Way way;
        private final With with;
        private final Path own;
        private final Process process;
        private final CompletableFuture<Long> ended;
        private long told;

        Jvm(Way way, With with) throws IOException {
            this.way = way;
            this.with = with;
            own = Files.createTempDirectory(directory, way.toString());
            List<String> command = new ArrayList<>(List.of(
                Run.jdkProgram("java"), "-Xshare:auto",
                "-XX:TieredStopAtLevel=1", "-XX:+UseSerialGC", "-Xmx64m", "--enable-native-access=ALL-UNNAMED",
                "-XX:ErrorFile=" + own.resolve("crash"), "-Dvex.jni.library=" + System.getProperty("vex.jni.library"),
                "-cp", System.getProperty("java.class.path"), "vex.jni.EndingJvm", way.toString(),
                with.toString(), store));
            ProcessBuilder builder = new ProcessBuilder(command);
            builder.environment().put("VEX_TEST_LOG_DIR", own.toString());
            if (way == Way.STALLED && with == With.NATIVES) {
                builder.environment().merge("LD_PRELOAD", System.getProperty("vex.test.stalled-disk"),
                    (others, stalled) -> others + " " + stalled);
            }
            process = builder.redirectError(own.resolve("errors").toFile()).start();
            ended = process.onExit().thenApply(any -> System.nanoTime());
        }

        void awaitReady() throws IOException {
            BufferedReader output = process.inputReader();
            assertTrue("ready".equals(output.readLine()), this + " did not get ready: " + errors());
        }

        void end() throws IOException {
            told = System.nanoTime();
            if (way == Way.SIGNAL) {
                process.destroy();
            } else {
                process.getOutputStream().close();
            }
        }

        double seconds() {
            return (ended.join() - told) / 1e9;
        }

        void check() throws Exception {
            assertTrue(process.waitFor(LONGEST_SECONDS, TimeUnit.SECONDS), this + " does not end");
            assertTrue(process.exitValue() == way.status(),
                this + " ended with " + process.exitValue() + ": " + errors());
            assertTrue(errors().isEmpty(), this + ": " + errors());
            assertTrue(!Files.exists(own.resolve("crash")), this + " crashed");
            if (with == With.NATIVES && way != Way.STALLED) {
                byte[] log = Files.readAllBytes(own.resolve("PILog.txt"));
                assertTrue(log.length > 2 && Arrays.equals(log, 0, 2, new byte[] {-1, -2}, 0, 2), this + ": the log");
            }
            try (Stream<Path> files = Files.walk(own)) {
                files.sorted(Comparator.reverseOrder()).map(Path::toFile).forEach(File::delete);
            }
        }

        private String errors() throws IOException {
            return Files.readString(own.resolve("errors"));
        }

        @Override
        public String toString() {
            return way + " with " + with;
        }
    }
}
