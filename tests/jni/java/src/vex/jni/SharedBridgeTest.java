package vex.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.io.IOException;
import java.lang.ref.WeakReference;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.stream.Stream;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/**
 * Class loaders with copies of the bundled jar share one bridge, and so one log with one writer thread and one wait at
 * the end of the process. Each test looks at a JVM of its own.
 */
@Tag("loading")
class SharedBridgeTest {
    private static final String BUNDLED_JAR = System.getProperty("vex.test.bundled");
    private static final String PRODUCT_JAR = System.getProperty("vex.test.jar");
    private static final String LIBRARY = System.getProperty("vex.jni.library");

    /**
     * Uses the class in one new class loader after the other and prints what the process then has. An argument is a
     * jar, with "*" and the number of class loaders, or with "+" and the library that the property names. If the first
     * argument is "keep", all class loaders stay; otherwise they are collected, ten at a time.
     */
    static final class Reload {
        private static final String CALLER = "reload-caller";  // at most 15 characters, as the kernel keeps them
        private static final List<URLClassLoader> KEPT = new ArrayList<>();

        public static void main(String[] args) throws Exception {
            boolean keep = args[0].equals("keep");
            for (String arg : keep ? List.of(args).subList(1, args.length) : List.of(args)) {
                String[] parts = arg.split("[*+]");
                System.setProperty("vex.jni.library", arg.contains("+") ? parts[1] : "");
                int count = arg.contains("*") ? Integer.parseInt(parts[1]) : 1;
                for (int i = 1; i <= count; ++i) {
                    WeakReference<ClassLoader> loader = use(parts[0], keep);
                    if (!keep && (i % 10 == 0 || i == count)) {
                        Garbage.awaitCollection(() -> loader.get() == null && bindings() == 0);
                    }
                }
            }
            for (URLClassLoader loader : KEPT) {
                call(loader);
            }
            System.out.println(mapped("libTAVClientJNI.so") + " bridges, " + mapped("libVEXClientTKDll64.so")
                + " toolkits, " + bindings() + " bindings, " + writers() + " writers");
        }

        private static WeakReference<ClassLoader> use(String jar, boolean keep) throws Exception {
            URLClassLoader loader = new URLClassLoader(new URL[] {Path.of(jar).toUri().toURL()}, null);
            call(loader);
            if (keep) {
                KEPT.add(loader);
            }
            return new WeakReference<>(loader);
        }

        /** Calls a native, which writes to the log, in a thread with a name that the log's writer inherits. */
        private static void call(ClassLoader loader) throws Exception {
            List<Throwable> failures = new ArrayList<>();
            Thread thread = new Thread(() -> {
                try {
                    Class<?> type = Class.forName("vex.jni.TAVClientJNI", true, loader);
                    Object version = type.getMethod("GetSignVersion", long.class)
                        .invoke(type.getConstructor().newInstance(), 0L);
                    if (!version.toString().startsWith("1")) {
                        throw new AssertionError(version);
                    }
                } catch (ReflectiveOperationException | LinkageError e) {
                    failures.add(e);
                }
                Thread.currentThread().setName("reload-called");  // may outlive join() for a moment
            }, CALLER);
            thread.start();
            thread.join();
            if (!failures.isEmpty()) {
                throw new AssertionError(failures.get(0));
            }
        }

        /** The number of different files with this name that are mapped. */
        private static long mapped(String name) throws IOException {
            try (Stream<String> lines = Files.lines(Path.of("/proc/self/maps"))) {
                return lines.filter(line -> line.replace(" (deleted)", "").endsWith("/" + name))
                    .map(line -> line.substring(line.indexOf('/'))).distinct().count();
            }
        }

        private static long bindings() throws IOException {
            return mapped("libTAVClientJNIBinding.so");
        }

        /** The number of threads that have the callers' name and are none of them. */
        private static long writers() throws IOException {
            long count = 0;
            try (Stream<Path> tasks = Files.list(Path.of("/proc/self/task"))) {
                for (Path task : tasks.toList()) {
                    count += nameOf(task).equals(CALLER) ? 1 : 0;
                }
            }
            return count;
        }

        private static String nameOf(Path task) {
            try {
                return Files.readString(task.resolve("comm")).strip();
            } catch (IOException e) {
                return "ended";
            }
        }
    }

    @TempDir
    private Path directory;

    private String reload(String... arguments) throws Exception {
        String tests = Path.of(Reload.class.getProtectionDomain().getCodeSource().getLocation().toURI()).toString();
        List<String> command = new ArrayList<>(List.of(Run.jdkProgram("java"), "--enable-native-access=ALL-UNNAMED",
            "-Djava.library.path=/nowhere", "-cp", tests, Reload.class.getName()));
        command.addAll(List.of(arguments));
        ProcessBuilder builder = new ProcessBuilder(command);
        builder.environment().put("LD_LIBRARY_PATH", directory.toString());
        return Run.of(builder).succeeded().output();
    }

    @Test
    void fiftyReloadsLeaveOneBridge() throws Exception {
        assertEquals("1 bridges, 1 toolkits, 0 bindings, 1 writers\n", reload(BUNDLED_JAR + "*50"));
    }

    @Test
    void classLoadersShareOneBridgeAtTheSameTime() throws Exception {
        assertEquals("1 bridges, 1 toolkits, 5 bindings, 1 writers\n", reload("keep", BUNDLED_JAR + "*5"));
    }

    @Test
    void theBundledJarDoesNotSearchForItsBridge() throws Exception {
        Files.writeString(directory.resolve("libTAVClientJNI.so"), "the dynamic linker cannot load this");
        assertEquals("1 bridges, 1 toolkits, 0 bindings, 1 writers\n", reload(BUNDLED_JAR));
    }

    @Test
    void theBundledJarUsesABridgeThatIsLoadedAlready() throws Exception {
        assertEquals("1 bridges, 1 toolkits, 2 bindings, 1 writers\n",
            reload("keep", PRODUCT_JAR + "+" + LIBRARY, BUNDLED_JAR + "*2"));
    }

    @Test
    void aLibraryThatIsNamedIsLoadedBesideTheOneOfTheJar() throws Exception {
        assertEquals("2 bridges, 1 toolkits, 2 bindings, 2 writers\n",
            reload("keep", BUNDLED_JAR, PRODUCT_JAR + "+" + LIBRARY, BUNDLED_JAR));
    }
}
