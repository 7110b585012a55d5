package vex.jni;

import java.io.DataInputStream;
import java.io.File;
import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.nio.file.attribute.FileAttribute;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.Locale;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * Loads the native library: from the path in the system property {@code vex.jni.library}, else from
 * {@code java.library.path}, else from the jar. Every failure is an {@link UnsatisfiedLinkError} that says what was
 * tried, why it failed and what to do.
 */
final class LibraryLoader {
    static final String PROPERTY = "vex.jni.library";

    private static final String NAME = "TAVClientJNI";
    private static final String BRIDGE = "libTAVClientJNI.so";
    private static final String TOOLKIT = "libVEXClientTKDll64.so";
    /** The place of the libraries in a jar that contains them. */
    private static final String RESOURCES = "/natives/linux-x86_64/";

    private static final int ELF_X86_64 = 62;

    /** Explains errors of musl's linker: the released libraries need glibc. */
    private static final String FOR_GLIBC = "this JVM's C library is musl, as on Alpine Linux, and the library was"
        + " built for glibc. Run it on a system with glibc, such as Debian, or build the library and what it needs on"
        + " this one.";

    private LibraryLoader() {}

    /** Called when TAVClientJNI is initialised. Both classes have the class loader that gets the natives. */
    static void load() {
        String path = System.getProperty(PROPERTY, "");
        if (!path.isEmpty()) {
            load(path, path + ", from the system property " + PROPERTY);
        } else if (!loadFromLibraryPath()) {
            loadFromJar();
        }
    }

    private static void load(String file, String tried) {
        try {
            System.load(file);
        } catch (UnsatisfiedLinkError e) {
            throw failure(tried, explain(e, file), e);
        } catch (RuntimeException e) {
            throw notAllowed(tried, e);
        }
    }

    /** Returns false if the path has no library and the jar has one. A library that fails to load is an error. */
    private static boolean loadFromLibraryPath() {
        String directories = System.getProperty("java.library.path", "");
        String tried = BRIDGE + " in java.library.path (" + directories + "), since the system property " + PROPERTY
            + " is not set";
        try {
            System.loadLibrary(NAME);
            return true;
        } catch (UnsatisfiedLinkError e) {
            String file = find(directories);
            if (file != null || !String.valueOf(e.getMessage()).startsWith("no " + NAME + " in ")) {
                throw failure(tried, explain(e, file), e);
            }
            if (LibraryLoader.class.getResource(RESOURCES + BRIDGE) != null) {
                return false;
            }
            throw failure(tried, "there is no such file, and this jar contains no libraries; tavclientjni-bundled.jar"
                + " does.", e);
        } catch (RuntimeException e) {
            throw notAllowed(tried, e);
        }
    }

    /** The path of the library in one of the directories; null if none has it. */
    private static String find(String directories) {
        for (String directory : directories.split(Pattern.quote(File.pathSeparator))) {
            File file = new File(directory.isEmpty() ? "." : directory, BRIDGE);
            if (file.exists()) {
                return file.getAbsolutePath();
            }
        }
        return null;
    }

    private static void loadFromJar() {
        String system = System.getProperty("os.name", "") + " on " + System.getProperty("os.arch", "");
        String tried = RESOURCES.substring(1) + BRIDGE + " in the jar";
        if (!system.equals("Linux on amd64")) {
            throw failure(tried, "the jar carries libraries for Linux on amd64, and this is " + system + ".", null);
        }
        Path directory;
        try {
            directory = extractAll();
        } catch (IOException e) {
            throw failure(tried, "it cannot be copied below java.io.tmpdir (" + System.getProperty("java.io.tmpdir")
                + "): " + e + ". Name a writable directory with -Djava.io.tmpdir.", e);
        }
        try {
            String file = directory.resolve(BRIDGE).toString();
            load(file, tried + ", copied to " + file);
        } finally {
            delete(directory);
        }
    }

    /** Copies both libraries to a new directory that nobody else can enter. */
    private static Path extractAll() throws IOException {
        Path directory = Files.createTempDirectory("vex-natives-", attribute("rwx------"));
        try {
            extract(TOOLKIT, directory);
            extract(BRIDGE, directory);
            return directory;
        } catch (IOException | RuntimeException e) {
            delete(directory);
            throw e;
        }
    }

    private static FileAttribute<?> attribute(String permissions) {
        return PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString(permissions));
    }

    private static void extract(String name, Path directory) throws IOException {
        try (InputStream stream = LibraryLoader.class.getResourceAsStream(RESOURCES + name)) {
            if (stream == null) {
                throw new IOException("the jar does not carry " + name);
            }
            Files.copy(stream, directory.resolve(name));
        }
    }

    /** The process keeps the loaded libraries; it no longer needs the files. */
    private static void delete(Path directory) {
        for (Path path : new Path[] {directory.resolve(BRIDGE), directory.resolve(TOOLKIT), directory}) {
            try {
                Files.deleteIfExists(path);
            } catch (IOException e) {
                // Ignored: the files are in a directory for temporary files.
            }
        }
    }

    // ---- What went wrong ----

    private static UnsatisfiedLinkError failure(String tried, String reason, Throwable cause) {
        String given = cause instanceof UnsatisfiedLinkError ? " Reason given: " + cause.getMessage() : "";
        UnsatisfiedLinkError error = new UnsatisfiedLinkError("The signing library cannot be loaded. Tried: " + tried
            + "." + (reason.isEmpty() ? "" : " " + capitalise(reason)) + " Start Java with -D" + PROPERTY
            + "=<full path of " + BRIDGE + "> to load another one." + given);
        error.initCause(cause);
        return error;
    }

    private static String capitalise(String sentence) {
        return sentence.substring(0, 1).toUpperCase(Locale.ROOT) + sentence.substring(1);
    }

    /** Java 24 and newer can forbid code to load libraries. */
    private static UnsatisfiedLinkError notAllowed(String tried, RuntimeException e) {
        if (!e.getClass().getName().equals("java.lang.IllegalCallerException")) {
            throw e;
        }
        return failure(tried, "this JVM denies native access: start it with --enable-native-access=ALL-UNNAMED (or with"
            + " the module's name, for a module), or put \"Enable-Native-Access: ALL-UNNAMED\" into the manifest of the"
            + " program's jar. What Java says: " + e.getMessage() + ".", e);
    }

    /**
     * Says why loading failed and what to do, as far as the message and the file show it; otherwise "". The message
     * quotes the dynamic linker of glibc or musl.
     *
     * @param file the library's path; null if it is not known
     */
    static String explain(UnsatisfiedLinkError e, String file) {
        String message = String.valueOf(e.getMessage());
        boolean musl = message.contains("Error loading shared library ") || message.contains("Error relocating ");
        if (message.contains("already loaded in another class")) {
            return "another class loader of this JVM has loaded it already, and a JVM loads a library for one class"
                + " loader only. Put tavclientjni.jar where both share it (a server's common lib directory or the class"
                + " path), not into each application.";
        }
        if (message.contains("failed to map segment") || musl && message.contains("Operation not permitted")) {
            return "code may not be executed from there: the file system is mounted noexec, or a security policy"
                + " forbids it. Keep the library in a directory on another file system; the copy from the jar is put"
                + " where -Djava.io.tmpdir says.";
        }
        Matcher version = Pattern.compile("version [`'\"]?(\\w+?)_([0-9.]+)'? not found").matcher(message);
        if (version.find()) {
            String library = version.group(1).equals("GLIBC") ? "glibc, the C library" : version.group(1);
            return "it was built for " + library + " " + version.group(2) + " or newer, and the one on this host is"
                + " older. Run it on a newer release of the system, or build the library on this one.";
        }
        String wrongFile = file == null ? null : elfProblem(Paths.get(file));
        if (wrongFile != null) {
            return wrongFile;
        }
        Matcher missing = Pattern.compile("([^\\s:/]+\\.so[.0-9]*): (?:cannot open shared object file|No such file)")
            .matcher(message);
        if (missing.find() && !missing.group(1).equals(BRIDGE)) {
            return missing.group(1).equals(TOOLKIT)
                ? "the toolkit " + TOOLKIT + " is missing. Put it beside " + BRIDGE + ", or its directory into the"
                    + " environment's LD_LIBRARY_PATH."
                : "the library " + missing.group(1) + " that it needs is missing. "
                    + (musl ? capitalise(FOR_GLIBC) : "Install the package that has it (libcrypto.so.3: OpenSSL 3).");
        }
        Matcher symbol = Pattern.compile("undefined symbol: (\\w+)|(\\w+): symbol not found").matcher(message);
        if (symbol.find()) {
            String name = symbol.group(symbol.group(1) == null ? 2 : 1);
            if (musl && !name.startsWith("VCTK_")) {
                return FOR_GLIBC;
            }
            return "the " + TOOLKIT + " that was found does not offer " + name + ", which " + BRIDGE
                + " needs. Start Java with LD_DEBUG=libs in its environment to see which file it is.";
        }
        return "";
    }

    /** Says why this JVM cannot load the file; null if it can. The linker's own messages for this can mislead. */
    private static String elfProblem(Path file) {
        if (!file.isAbsolute()) {
            return null;
        }
        if (!Files.exists(file)) {
            return "there is no such file.";
        }
        byte[] header = new byte[20];
        try (DataInputStream stream = new DataInputStream(Files.newInputStream(file))) {
            stream.readFully(header);
        } catch (IOException e) {
            return "the file cannot be read: " + e + ".";
        }
        if (header[0] != 0x7f || header[1] != 'E' || header[2] != 'L' || header[3] != 'F') {
            return "the file is not an ELF library: it is damaged, or something else.";
        }
        boolean littleEndian = header[5] == 1;
        int machine = littleEndian ? header[18] & 0xff | (header[19] & 0xff) << 8
            : (header[18] & 0xff) << 8 | header[19] & 0xff;
        boolean x8664 = header[4] == 2 && littleEndian && machine == ELF_X86_64;
        boolean jvmIsX8664 = System.getProperty("os.arch", "").equals("amd64");
        if (x8664 == jvmIsX8664) {
            return null;
        }
        return "wrong architecture: the library is for " + (x8664 ? "x86-64" : machineName(machine))
            + ", and this JVM for " + System.getProperty("os.arch")
            + ". Both have to be for the same; the library exists for 64-bit x86 Linux.";
    }

    private static String machineName(int machine) {
        switch (machine) {
            case 3: return "32-bit x86";
            case 40: return "32-bit ARM";
            case ELF_X86_64: return "x86-64 with 32-bit pointers";
            case 183: return "64-bit ARM (aarch64)";
            case 243: return "RISC-V";
            default: return "the ELF machine " + machine;
        }
    }
}
