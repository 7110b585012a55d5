package vex.jni;

import static java.nio.charset.StandardCharsets.ISO_8859_1;

import java.lang.reflect.Method;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.time.Instant;
import java.util.concurrent.CountDownLatch;
import java.util.regex.Pattern;

/** A program that writes to the log and ends, in one of several ways. */
final class LogAtEnd {
    private static final int CALLS = 500;
    private static final int THREADS = 8;
    private static final Duration LONGEST = Duration.ofMinutes(5);
    private static final Pattern FIRST_RECORD = Pattern.compile("(Enter|Leave)\\.\\R");

    private LogAtEnd() {}

    /**
     * Writes to the log and ends.
     *
     * @param args the way: return, exit, signal (SIGTERM), threads (System.exit while threads write), processes (as
     *     threads, after child processes), loaders (each class loader loads the class after the last one was collected)
     * @throws Exception when something is wrong
     */
    public static void main(String[] args) throws Exception {
        switch (args[0]) {
            case "return" -> traceToTheEnd();
            case "exit" -> {
                traceToTheEnd();
                System.exit(7);
            }
            case "signal" -> {
                traceToTheEnd();
                new ProcessBuilder("kill", "-TERM", Long.toString(ProcessHandle.current().pid())).start();
                Thread.currentThread().join();
            }
            case "threads" -> {
                startTracing();
                System.exit(7);
            }
            case "processes" -> {
                startTracing();
                for (int i = 0; i < 20; ++i) {
                    if (new ProcessBuilder("true").start().waitFor() != 0) {
                        throw new AssertionError("a child process failed");
                    }
                }
                System.exit(7);
            }
            case "loaders" -> {
                int cycles = Amount.of("VEX_TEST_EXITS_LOADERS", 3);
                for (int i = 0; i < cycles; ++i) {
                    // No two class loaders may have the library, so this waits until the last one is collected.
                    Garbage.awaitCollection(LogAtEnd::traceInClassLoaderOfItsOwn);
                }
                awaitFirstRecord();
                System.err.println("Loaded, used and unloaded " + cycles + " times");
            }
            default -> throw new IllegalArgumentException(args[0]);
        }
    }

    /** The end of a process gives the writer one second. On a busy machine it may need longer for its first record. */
    private static void awaitFirstRecord() throws Exception {
        Path log = Path.of(System.getenv("VEX_TEST_LOG_DIR"), "PILog.txt");
        Instant end = Instant.now().plus(LONGEST);
        while (!Files.exists(log) || !FIRST_RECORD.matcher(Files.readString(log, ISO_8859_1)).find()) {
            if (Instant.now().isAfter(end)) {
                throw new AssertionError("there is no record after " + LONGEST);
            }
            Thread.sleep(1);
        }
    }

    private static void trace(int calls) {
        TAVClientJNI natives = new TAVClientJNI();
        for (int i = 0; i < calls; ++i) {
            natives.GetLastError(0);
        }
    }

    /** Returns while records are queued. */
    private static void traceToTheEnd() throws Exception {
        trace(1);
        awaitFirstRecord();
        trace(CALLS);
    }

    /** Returns when all threads have written; they go on. */
    private static void startTracing() throws Exception {
        trace(1);
        awaitFirstRecord();
        CountDownLatch traced = new CountDownLatch(THREADS);
        for (int i = 0; i < THREADS; ++i) {
            Thread thread = new Thread(() -> {
                trace(1);
                traced.countDown();
                while (true) {
                    trace(1);
                    Thread.yield();
                }
            });
            thread.setDaemon(true);
            thread.start();
        }
        traced.await();
    }

    /** Returns false if another class loader has the library. */
    private static boolean traceInClassLoaderOfItsOwn() throws Exception {
        URL classes = TAVClientJNI.class.getProtectionDomain().getCodeSource().getLocation();
        try (URLClassLoader loader = new URLClassLoader(new URL[] {classes}, ClassLoader.getPlatformClassLoader())) {
            Class<?> type = Class.forName("vex.jni.TAVClientJNI", true, loader);
            Object natives = type.getConstructor().newInstance();
            Method method = type.getMethod("GetLastError", long.class);
            for (int i = 0; i < CALLS; ++i) {
                method.invoke(natives, 0L);
            }
            return true;
        } catch (UnsatisfiedLinkError e) {
            if (!e.getMessage().contains("already loaded in another classloader")) {
                throw e;
            }
            return false;
        }
    }
}
