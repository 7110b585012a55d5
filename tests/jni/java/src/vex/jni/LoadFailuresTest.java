package vex.jni;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import java.io.InputStream;
import java.lang.ref.WeakReference;
import java.lang.reflect.Method;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.ArrayList;
import java.util.List;
import java.util.jar.JarFile;
import java.util.stream.Stream;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.ValueSource;

/**
 * Every way in which loading the library can fail: the message names the cause and what to do. The JVM of the tests
 * loads no library itself, because a JVM that has loaded the toolkit once can no longer miss it.
 */
@Tag("loading")
class LoadFailuresTest {
    private static final Path LIBRARY = Path.of(System.getProperty("vex.jni.library"));
    private static final String BRIDGE = "libTAVClientJNI.so";
    private static final String TOOLKIT = "libVEXClientTKDll64.so";
    private static final String BUNDLED_JAR = System.getProperty("vex.test.bundled");
    private static final String PRODUCT_JAR = System.getProperty("vex.test.jar");
    private static final String PROPERTY = "vex.jni.library";
    private static final String MAPS_OF_MUSL =
        "7f0c8e200000-7f0c8e29b000 r-xp 00014000 fe:01 271 /lib/ld-musl-x86_64.so.1\n";
    private static final String NATIVE_ACCESS = "--enable-native-access=ALL-UNNAMED";

    @TempDir
    private Path directory;

    // ---- In class loaders of this JVM, where loading fails ----

    /** Returns the message of the failure when a new class loader first uses the class. */
    private static String failure(String jar, String library) throws Exception {
        String before = System.getProperty(PROPERTY);
        System.setProperty(PROPERTY, library);
        try (URLClassLoader loader = new URLClassLoader(new URL[] {Path.of(jar).toUri().toURL()}, null)) {
            Class.forName("vex.jni.TAVClientJNI", true, loader);
            throw new AssertionError("loaded: " + library);
        } catch (UnsatisfiedLinkError e) {
            assertTrue(e.getMessage().startsWith("The signing library cannot be loaded: "), e.getMessage());
            return e.getMessage();
        } finally {
            System.setProperty(PROPERTY, before);
        }
    }

    private Path copyOfBoth() throws Exception {
        Files.copy(LIBRARY.resolveSibling(TOOLKIT), directory.resolve(TOOLKIT));
        return Files.copy(LIBRARY, directory.resolve(BRIDGE));
    }

    /** The bridge's ELF header names 64-bit ARM. */
    private Path copyForAnotherProcessor() throws Exception {
        Path library = copyOfBoth();
        byte[] content = Files.readAllBytes(library);
        content[18] = (byte) 183;
        Files.write(library, content);
        return library;
    }

    private static void assertContains(String text, String... parts) {
        for (String part : parts) {
            assertTrue(text.contains(part), () -> "no \"" + part + "\" in: " + text);
        }
    }

    @Test
    void explainsAWrongArchitecture() throws Exception {
        Path library = copyForAnotherProcessor();
        assertContains(failure(PRODUCT_JAR, library.toString()),
            "wrong architecture: the library is for 64-bit ARM (aarch64), and this JVM for amd64.");
    }

    @Test
    void explainsAFileThatIsNoLibrary() throws Exception {
        Path library = Files.writeString(directory.resolve(BRIDGE), "just some text of more than twenty characters");
        assertContains(failure(PRODUCT_JAR, library.toString()), "the file is not an ELF library");
        assertContains(failure(PRODUCT_JAR, directory.resolve("missing.so").toString()), "there is no such file.");
        assertContains(failure(PRODUCT_JAR, BRIDGE), "cannot be loaded: Java says \"Expecting an absolute path");
    }

    @Test
    void explainsAMissingToolkit() throws Exception {
        Path lonely = Files.copy(LIBRARY, directory.resolve(BRIDGE));
        assertContains(failure(PRODUCT_JAR, lonely.toString()), "the toolkit " + TOOLKIT + " is missing.",
            "Put it beside " + BRIDGE);
    }

    @Test
    void explainsAToolkitThatLacksAnOperation() throws Exception {
        Path library = copyOfBoth();
        Path toolkit = directory.resolve(TOOLKIT);
        String content = Files.readString(toolkit, StandardCharsets.ISO_8859_1);
        String changed = content.replace("\0VCTK_GetCertList\0", "\0VCTK_getcertlist\0");
        assertFalse(changed.equals(content));
        Files.writeString(toolkit, changed, StandardCharsets.ISO_8859_1);
        assertContains(failure(PRODUCT_JAR, library.toString()),
            "the " + TOOLKIT + " that was found does not offer VCTK_GetCertList, which " + BRIDGE + " needs.",
            "LD_DEBUG=libs");
    }

    @Test
    void explainsATooOldCLibrary() throws Exception {
        Path library = copyOfBoth();
        // Changes the name of a version in the bridge's table of the versions that it needs.
        String content = Files.readString(library, StandardCharsets.ISO_8859_1);
        String changed = content.replaceFirst("\0GLIBC_2\\.\\d\\d\0", "\0GLIBC_9.99\0");
        assertFalse(changed.equals(content));
        Files.writeString(library, changed, StandardCharsets.ISO_8859_1);
        assertContains(failure(PRODUCT_JAR, library.toString()),
            "it was built for glibc, the C library 9.99 or newer, and the one on this host is older.", "newer release");
    }

    /** Messages of musl 1.2's linker for this library; no JVM of these tests has that C library. */
    @ParameterizedTest
    @CsvSource(delimiter = '|', value = {
        "loading shared library libVEXClientTKDll64.so: No such file or directory (needed by /l/libTAVClientJNI.so)"
            + " | the toolkit libVEXClientTKDll64.so is missing. Put it beside libTAVClientJNI.so",
        "loading shared library libstdc++.so.6: No such file or directory (needed by /l/libTAVClientJNI.so)"
            + " | this JVM's C library is musl, as on Alpine Linux, and the library was built for glibc.",
        "relocating /l/libTAVClientJNI.so: __printf_chk: symbol not found"
            + " | this JVM's C library is musl, as on Alpine Linux, and the library was built for glibc.",
        "relocating /l/libTAVClientJNI.so: VCTK_GetCertList: symbol not found"
            + " | the libVEXClientTKDll64.so that was found does not offer VCTK_GetCertList",
        "loading shared library /l/libTAVClientJNI.so: Operation not permitted"
            + " | code may not be executed from there"})
    void explainsMessagesOfMusl(String error, String explanation) {
        String message = LoadFailure.explain(
            new UnsatisfiedLinkError("/l/libTAVClientJNI.so: Error " + error), null);
        assertTrue(message.startsWith(explanation), message);
    }

    /** Whatever musl misses first: a library that was built for glibc cannot work. */
    @ParameterizedTest
    @ValueSource(strings = {"libVEXClientTKDll64.so: No such file or directory (needed by /l/libTAVClientJNI.so)",
        "/l/libTAVClientJNI.so: Operation not permitted"})
    void saysFirstThatMuslCannotLoadALibraryForGlibc(String error) {
        UnsatisfiedLinkError thrown =
            new UnsatisfiedLinkError("/l/libTAVClientJNI.so: Error loading shared library " + error);
        String message = LoadFailure.explain(thrown, LIBRARY.toString());
        assertTrue(message.startsWith("this JVM's C library is musl, as on Alpine Linux, and the library was built for"
            + " glibc."), message);
    }

    @Test
    void recognisesMuslByItsMapping() throws Exception {
        assertTrue(LoadFailure.mapsMusl(Files.writeString(directory.resolve("maps"), MAPS_OF_MUSL)));
        assertFalse(LoadFailure.mapsMusl(Path.of("/proc/self/maps")));
        assertFalse(LoadFailure.mapsMusl(directory.resolve("missing")));
    }

    @Test
    void namesTheJarThatHasTheLibraries() throws Exception {
        assertContains(failure(PRODUCT_JAR, ""), "there is no such file", "tavclientjni-bundled.jar");
    }

    @Test
    void explainsAnUnwritableTemporaryDirectory() throws Exception {
        String output = java(List.of(), NATIVE_ACCESS, "-Djava.io.tmpdir=/nowhere", "-cp", bundledClassPath(),
            Load.class.getName());
        assertContains(output, "it cannot be copied below java.io.tmpdir (/nowhere)", "-Djava.io.tmpdir");
    }

    // ---- In separate JVMs ----

    /** Uses the class in the given number of new class loaders (default: one), and prints "ok" for each. */
    static final class Load {
        public static void main(String[] args) throws Exception {
            int loaders = args.length == 0 ? 1 : Integer.parseInt(args[0]);
            URL[] path = {Path.of(System.getProperty("java.class.path").split(":")[0]).toUri().toURL()};
            List<URLClassLoader> kept = new ArrayList<>();
            for (int i = 0; i < loaders; ++i) {
                URLClassLoader loader = new URLClassLoader(path, null);
                kept.add(loader);
                try {
                    Class<?> type = Class.forName("vex.jni.TAVClientJNI", true, loader);
                    Object version = type.getMethod("GetSignVersion", long.class)
                        .invoke(type.getConstructor().newInstance(), 0L);
                    System.out.println("ok " + version.toString().replace("\0", ""));
                } catch (UnsatisfiedLinkError e) {
                    System.out.println(e.getMessage());
                }
            }
            System.out.println(kept.size() + " class loaders");
        }
    }

    /**
     * Opens a client in a new class loader, and waits until the garbage collector has removed both. Does so twice.
     */
    static final class Forget {
        public static void main(String[] args) throws Exception {
            for (int i = 0; i < 2; ++i) {
                WeakReference<ClassLoader> loader = openAndForget();
                Garbage.awaitCollection(() -> loader.get() == null);
                System.out.println("collected");
            }
        }

        private static WeakReference<ClassLoader> openAndForget() throws Exception {
            URL[] path = {Path.of(System.getProperty("java.class.path").split(":")[0]).toUri().toURL()};
            URLClassLoader loader = new URLClassLoader(path, ClassLoader.getPlatformClassLoader());
            Class<?> type = Class.forName("vex.client.SigningClient", true, loader);
            Object builder = type.getMethod("store", String.class).invoke(null, "demo:");
            Object client = builder.getClass().getMethod("open").invoke(builder);
            byte[] signature = (byte[]) type.getMethod("signRaw", String.class).invoke(client, "text");
            System.out.println("signed " + (signature.length > 0));
            return new WeakReference<>(loader);
        }
    }

    private static String testsJar() throws Exception {
        return Path.of(Load.class.getProtectionDomain().getCodeSource().getLocation().toURI()).toString();
    }

    private static String bundledClassPath() throws Exception {
        return BUNDLED_JAR + ":" + testsJar();
    }

    private static String productClassPath() throws Exception {
        return PRODUCT_JAR + ":" + testsJar();
    }

    private static String java(List<String> before, String... arguments) throws Exception {
        List<String> command = new ArrayList<>(before);
        command.add(Run.jdkProgram("java"));
        command.addAll(List.of(arguments));
        return run(command);
    }

    private static String run(List<String> command) throws Exception {
        return Run.of(new ProcessBuilder(command).redirectErrorStream(true)).output();
    }

    @Test
    void loadsTheLibrariesOfTheBundledJarAndLeavesNoFiles() throws Exception {
        String output = java(List.of(), NATIVE_ACCESS, "-Djava.io.tmpdir=" + directory, "-cp", bundledClassPath(),
            Load.class.getName(), "2");
        assertContains(output, "ok 1.0.\nok 1.0.\n2 class loaders");
        try (Stream<Path> left = Files.list(directory)) {
            assertEquals(List.of(), left.filter(path -> path.getFileName().toString().startsWith("vex-")).toList());
        }
    }

    @Test
    void aForgottenClientKeepsNoClassLoaderAlive() throws Exception {
        String output = java(List.of(), NATIVE_ACCESS, "-cp", bundledClassPath(), Forget.class.getName());
        assertEquals("signed true\ncollected\n".repeat(2), output);
    }

    @Test
    void onlyTheUserMayAccessTheCopiesFromTheJar() throws Exception {
        Path copies;
        try (URLClassLoader loader = new URLClassLoader(new URL[] {Path.of(BUNDLED_JAR).toUri().toURL()}, null)) {
            Method extract = Class.forName("vex.jni.LibrariesInJar", true, loader).getDeclaredMethod("extractAll");
            extract.setAccessible(true);
            copies = (Path) extract.invoke(null);
        }
        assertEquals("rwx------", PosixFilePermissions.toString(Files.getPosixFilePermissions(copies)));
        try (JarFile jar = new JarFile(BUNDLED_JAR)) {
            for (String name : List.of(BRIDGE, TOOLKIT, "libTAVClientJNIBinding.so")) {
                byte[] content = jar.getInputStream(jar.getEntry("natives/linux-x86_64/" + name)).readAllBytes();
                assertArrayEquals(content, Files.readAllBytes(copies.resolve(name)), name);
                Files.delete(copies.resolve(name));
            }
        }
        Files.delete(copies);
    }

    @Test
    void explainsThatAnotherClassLoaderHasTheLibrary() throws Exception {
        String output = java(List.of(), NATIVE_ACCESS, "-Djava.library.path=" + LIBRARY.getParent(), "-cp",
            productClassPath(), Load.class.getName(), "2");
        assertContains(output, "ok 1.0.\n", "another class loader of this JVM has loaded it already",
            "Put tavclientjni.jar where both share it", "2 class loaders");
    }

    /** The words before a command that runs it after a mount that nobody else sees. $0 in the mount is the file. */
    private static List<String> with(String mount, Path file) throws Exception {
        List<String> prefix = List.of("env", "unshare", "--mount", "--map-root-user", "sh", "-c",
            mount + " && exec \"$@\"", file.toString());
        List<String> probe = new ArrayList<>(prefix);
        probe.addAll(List.of("echo", "mounted"));
        String mounted = run(probe);
        assumeTrue(mounted.equals("mounted\n"), "this host allows no private mount namespace: " + mounted);
        return prefix;
    }

    @Test
    void explainsADirectoryThatForbidsExecution() throws Exception {
        String output = java(with("mount -t tmpfs -o noexec tmpfs \"$0\"", directory), NATIVE_ACCESS,
            "-Djava.io.tmpdir=" + directory, "-cp", bundledClassPath(), Load.class.getName());
        assertContains(output, "code may not be executed from there: the file system is mounted noexec",
            "-Djava.io.tmpdir");
    }

    /** A JVM whose list of mappings shows musl; in truth it uses glibc. */
    @Test
    void saysFirstThatTheLibraryDoesNotExistForMusl() throws Exception {
        Path maps = Files.writeString(directory.resolve("maps"), MAPS_OF_MUSL);
        List<String> prefix = with("mount --bind \"$0\" /proc/$$/maps", maps);
        Path lonely = Files.copy(LIBRARY, directory.resolve(BRIDGE));
        for (String option : List.of("-Djava.library.path=/nowhere", "-Djava.library.path=" + directory,
                "-Dvex.jni.library=" + lonely)) {
            String output = java(prefix, NATIVE_ACCESS, option, "-cp", productClassPath(), Load.class.getName());
            assertContains(output, "The signing library cannot be loaded: this JVM's C library is musl, as on Alpine"
                + " Linux, and the library was built for glibc.");
        }
    }

    /** Each system, where the library is named, searched and taken from the jar. */
    @ParameterizedTest
    @CsvSource({"Windows 11, amd64", "Mac OS X, aarch64", "Linux, aarch64", "Linux, i386", "FreeBSD, amd64"})
    void saysFirstThatTheLibraryDoesNotExistForTheSystem(String name, String processor) throws Exception {
        String reason = "The signing library cannot be loaded: this JVM is for " + name + " on " + processor
            + ", and the library exists only for Linux on amd64 (64-bit x86) with glibc.";
        Path lonely = Files.copy(LIBRARY, directory.resolve(BRIDGE));
        String before = System.setProperty("os.name", name);
        String processorBefore = System.setProperty("os.arch", processor);
        try {
            for (String jar : List.of(PRODUCT_JAR, BUNDLED_JAR)) {
                for (String library : List.of("", lonely.toString(), "/nowhere/" + BRIDGE)) {
                    String message = failure(jar, library);
                    assertTrue(message.startsWith(reason), message);
                }
            }
        } finally {
            System.setProperty("os.name", before);
            System.setProperty("os.arch", processorBefore);
        }
        String output = java(List.of(), NATIVE_ACCESS, "-Djava.library.path=" + directory, "-Dos.name=" + name,
            "-Dos.arch=" + processor, "-cp", bundledClassPath(), Load.class.getName());
        assertTrue(output.startsWith(reason), output);
    }

    /** Somebody may build the library for another processor; then its own problems count. */
    @Test
    void explainsALibraryThatWasBuiltForAnotherProcessor() throws Exception {
        Path library = copyForAnotherProcessor();
        String message = "libVEXClientTKDll64.so: cannot open shared object file: No such file or directory";
        String processor = System.setProperty("os.arch", "aarch64");
        try {
            String reason = LoadFailure.explain(new UnsatisfiedLinkError(message), library.toString());
            assertTrue(reason.startsWith("the toolkit " + TOOLKIT + " is missing."), reason);
        } finally {
            System.setProperty("os.arch", processor);
        }
    }

    /** The page's table quotes the messages; "..." stands for what differs. */
    @Test
    void thePageQuotesTheMessages() throws Exception {
        StringBuilder classes = new StringBuilder();
        for (String name : List.of("LibrariesInJar", "LibraryLoader", "LoadFailure", "LoadFailure$ElfFile")) {
            try (InputStream stream = LibraryLoader.class.getResourceAsStream(name + ".class")) {
                classes.append(new String(stream.readAllBytes(), StandardCharsets.UTF_8));
            }
        }
        List<String> rows = Files.readString(Path.of(System.getProperty("vex.test.docs"), "loading.md")).lines()
            .dropWhile(line -> !line.startsWith("| The message says |")).skip(2).takeWhile(line -> line.startsWith("|"))
            .map(line -> line.split("\\|")[1].strip()).toList();
        assertTrue(rows.size() >= 10, rows.toString());
        for (String row : rows) {
            for (String part : row.replace("`", "").split("\\.\\.\\.")) {
                assertTrue(classes.indexOf(part.strip()) >= 0, () -> "no \"" + part + "\" in the messages");
            }
        }
    }

    @Test
    void explainsDeniedNativeAccess() throws Exception {
        int version = Runtime.version().feature();
        assumeTrue(version >= 24, "Java " + version + " always allows native access");
        String output = java(List.of(), "--illegal-native-access=deny", "-Dvex.jni.library=" + LIBRARY, "-cp",
            productClassPath(), Load.class.getName());
        assertContains(output, "this JVM denies native access", NATIVE_ACCESS, "Enable-Native-Access: ALL-UNNAMED");
    }

    @Test
    void doesNotPassOverALibraryThatFailsToLoad() throws Exception {
        Files.copy(LIBRARY, directory.resolve(BRIDGE));
        String output = java(List.of(), NATIVE_ACCESS, "-Djava.library.path=" + directory, "-cp", bundledClassPath(),
            Load.class.getName());
        assertContains(output, "in java.library.path (" + directory + ")", "the toolkit " + TOOLKIT + " is missing.");
        assertFalse(output.contains("ok 1.0."), output);
    }
}
