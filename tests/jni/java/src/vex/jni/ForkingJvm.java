package vex.jni;

import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicLong;

/**
 * A program that starts other programs while its threads are in natives, in each way that a JVM has for it. A plain
 * fork also runs the fork handlers of libraries. Each started program has to run and end.
 */
final class ForkingJvm {
    private static final int THREADS = 8;
    private static final long LONGEST_SECONDS = 60;
    private static final TAVClientJNI NATIVES = new TAVClientJNI();

    private ForkingJvm() {}

    /**
     * Ends the JVM with status 0 if all started programs ended with status 0.
     *
     * @param args a value of the property jdk.lang.Process.launchMechanism, for this JVM; without it, each value is
     *     tried in a separate JVM
     * @throws Exception when something is wrong
     */
    public static void main(String[] args) throws Exception {
        if (args.length > 0) {
            startPrograms();
            return;
        }
        NATIVES.GetLastError(0);
        for (String way : List.of("FORK", "VFORK", "POSIX_SPAWN")) {
            List<String> command = List.of(Run.jdkProgram("java"),
                "-XX:+UseSerialGC", "-XX:TieredStopAtLevel=1", "-Xmx64m", "--enable-native-access=ALL-UNNAMED",
                "-Djdk.lang.Process.launchMechanism=" + way,
                "-Dvex.jni.library=" + System.getProperty("vex.jni.library"),
                "-cp", System.getProperty("java.class.path"), "vex.jni.ForkingJvm", way);
            int status = new ProcessBuilder(command).inheritIO().start().waitFor();
            assertTrue(status == 0, way + ": status " + status);
        }
    }

    private static void startPrograms() throws Exception {
        Path file = Files.createTempFile("forks", ".pem");
        String store = TestStore.writePem(file, List.of(TestStore.identity("secp256r1", "CN=E", 1, 30, 0)));
        AtomicLong calls = new AtomicLong();
        List<Thread> threads = new ArrayList<>();
        for (int i = 0; i < THREADS; ++i) {
            int number = i;
            Thread thread = new Thread(() -> callNatives(number, store, calls));
            thread.setDaemon(true);
            thread.start();
            threads.add(thread);
        }
        int programs = Amount.of("VEX_TEST_FORKS_PROGRAMS", 30);
        for (int i = 0; i < programs; ++i) {
            Process process = new ProcessBuilder("true").start();
            assertTrue(process.waitFor(LONGEST_SECONDS, TimeUnit.SECONDS), "a started program does not end");
            assertTrue(process.exitValue() == 0, "a started program failed");
        }
        assertTrue(threads.stream().allMatch(Thread::isAlive), "a thread ended");
        System.out.printf("%d programs started with %s during %,d natives%n", programs,
            System.getProperty("jdk.lang.Process.launchMechanism"), calls.get());
        Files.delete(file);
    }

    /** A quarter of the threads create and finalize objects, a quarter sign, and half of them write records. */
    private static void callNatives(int number, String store, AtomicLong calls) {
        long handle = NATIVES.Initialize(null, store);
        while (true) {
            switch (number % 4) {
                case 0 -> {
                    NATIVES.Finalize(handle);
                    handle = NATIVES.Initialize(null, store);
                }
                case 1 -> assertTrue(NATIVES.P7SignString(handle, "text", 1, 1) != null, "P7SignString");
                default -> NATIVES.GetLastError(handle);
            }
            calls.incrementAndGet();
            Thread.yield();
        }
    }
}
