package vex.jni;

import java.io.DataInputStream;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Stream;

/**
 * Explains why the native library cannot be loaded. The first sentence of a message says why, the next ones what to do
 * and what was tried.
 */
final class LoadFailure {
    private static final int ELF_X86_64 = 62;
    private static final String LINUX = "Linux";
    private static final String X86_64 = "amd64";

    /** The released libraries need glibc. */
    private static final String FOR_GLIBC = "this JVM's C library is musl, as on Alpine Linux, and the library was"
        + " built for glibc. Run it on a system with glibc, such as Debian, or build the library and what it needs on"
        + " this one.";

    private LoadFailure() {}

    /**
     * The error to throw.
     *
     * @param tried what was tried, without a full stop
     * @param reason sentences that say why it failed and what to do; "" if only the cause knows
     * @param cause what the JVM threw; may be null
     */
    static UnsatisfiedLinkError of(String tried, String reason, Throwable cause) {
        String given = cause instanceof UnsatisfiedLinkError ? String.valueOf(cause.getMessage()) : "";
        UnsatisfiedLinkError error = new UnsatisfiedLinkError("The signing library cannot be loaded: "
            + (reason.isEmpty() ? "Java says \"" + given + "\"." : reason) + " Tried: " + tried + ". Start Java with -D"
            + LibraryLoader.PROPERTY + "=<full path of " + LibraryLoader.BRIDGE + "> to load another one."
            + (reason.isEmpty() || given.isEmpty() ? "" : " Reason given: " + given));
        error.initCause(cause);
        return error;
    }

    /** Java 24 and newer can forbid code to load libraries. */
    static UnsatisfiedLinkError notAllowed(String tried, RuntimeException e) {
        if (!e.getClass().getName().equals("java.lang.IllegalCallerException")) {
            throw e;
        }
        return of(tried, "this JVM denies native access. Start it with --enable-native-access=ALL-UNNAMED (with"
            + " --enable-native-access=vex.client if the jar is on the module path), or put \"Enable-Native-Access:"
            + " ALL-UNNAMED\" into the manifest of the program's jar. What Java says: " + e.getMessage() + ".", e);
    }

    /** Says that the library does not exist for this system and what to do; "" if it does. */
    static String wrongSystem() {
        String name = System.getProperty("os.name", "");
        String processor = System.getProperty("os.arch", "");
        if (name.equals(LINUX) && processor.equals(X86_64)) {
            return "";
        }
        return "this JVM is for " + name + " on " + processor + ", and the library exists only for Linux on amd64"
            + " (64-bit x86) with glibc. Run the program there, for example in a container of Debian.";
    }

    /** Says why no library was found, where the jar has none. */
    static String explainAbsence() {
        if (!wrongSystem().isEmpty()) {
            return wrongSystem();
        }
        return usesMusl("") ? FOR_GLIBC : "there is no such file, and this jar contains no libraries;"
            + " tavclientjni-bundled.jar does.";
    }

    /**
     * Says why loading failed and what to do, as far as the message, the system and the file show it; otherwise "". The
     * message quotes the dynamic linker of glibc or musl.
     *
     * @param file the bridge's path; null if it is not known
     */
    static String explain(UnsatisfiedLinkError e, String file) {
        String message = String.valueOf(e.getMessage());
        if (message.contains("already loaded in another class")) {
            return "another class loader of this JVM has loaded it already, and a JVM loads a library for one class"
                + " loader only. Put tavclientjni.jar where both share it (a server's common lib directory or the class"
                + " path), not into each application. Or let each of them use tavclientjni-bundled.jar without naming a"
                + " library.";
        }
        ElfFile library = ElfFile.read(file);
        if (!wrongSystem().isEmpty() && !(LINUX.equals(System.getProperty("os.name")) && library.isForAnother())) {
            return wrongSystem();
        }
        boolean musl = usesMusl(message);
        if (musl && library.needsGlibc) {
            return FOR_GLIBC;
        }
        if (message.contains("failed to map segment") || musl && message.contains("Operation not permitted")) {
            return "code may not be executed from there: the file system is mounted noexec, or a security policy"
                + " forbids it. Keep the library in a directory on another file system; the copy from the jar is put"
                + " where -Djava.io.tmpdir says.";
        }
        Matcher version = Pattern.compile("version [`'\"]?(\\w+?)_([0-9.]+)'? not found").matcher(message);
        if (version.find()) {
            String name = version.group(1).equals("GLIBC") ? "glibc, the C library" : version.group(1);
            return "it was built for " + name + " " + version.group(2) + " or newer, and the one on this host is"
                + " older. Run it on a newer release of the system, or build the library on this one.";
        }
        if (!library.problem.isEmpty()) {
            return library.problem;
        }
        return explainNeeds(message, musl);
    }

    /** Says what the library needs and does not find; "" if the message does not name it. */
    private static String explainNeeds(String message, boolean musl) {
        Matcher missing = Pattern.compile("([^\\s:/]+\\.so[.0-9]*): (?:cannot open shared object file|No such file)")
            .matcher(message);
        if (missing.find() && !missing.group(1).equals(LibraryLoader.BRIDGE)) {
            if (missing.group(1).equals(LibraryLoader.TOOLKIT)) {
                return "the toolkit " + LibraryLoader.TOOLKIT + " is missing. Put it beside " + LibraryLoader.BRIDGE
                    + ", or its directory into the environment's LD_LIBRARY_PATH.";
            }
            return musl ? FOR_GLIBC : "the library " + missing.group(1) + " that it needs is missing. Install the"
                + " package that has it (libcrypto.so.3: OpenSSL 3).";
        }
        Matcher symbol = Pattern.compile("undefined symbol: (\\w+)|(\\w+): symbol not found").matcher(message);
        if (symbol.find()) {
            String name = symbol.group(symbol.group(1) == null ? 2 : 1);
            if (musl && !name.startsWith("VCTK_")) {
                return FOR_GLIBC;
            }
            return "the " + LibraryLoader.TOOLKIT + " that was found does not offer " + name + ", which "
                + LibraryLoader.BRIDGE + " needs. Start Java with LD_DEBUG=libs in its environment to see which file it"
                + " is.";
        }
        return "";
    }

    /** Whether the C library of this JVM is musl: its linker wrote the message, or is mapped into the process. */
    private static boolean usesMusl(String message) {
        return message.contains("Error loading shared library ") || message.contains("Error relocating ")
            || mapsMusl(Paths.get("/proc/self/maps"));
    }

    /** Whether a process maps musl, which is one file with its linker. The argument is in the format of proc(5). */
    static boolean mapsMusl(Path maps) {
        try (Stream<String> lines = Files.lines(maps, StandardCharsets.ISO_8859_1)) {
            return lines.anyMatch(line -> line.contains("/ld-musl-"));
        } catch (IOException | RuntimeException e) {
            return false;
        }
    }

    /** What a file shows about why this JVM cannot load it. The linker's own messages for this can mislead. */
    private static final class ElfFile {
        private static final ElfFile UNKNOWN = new ElfFile("", 0, false);

        /** Sentences that say why this JVM cannot load the file; "" if it can or if nothing is known. */
        private final String problem;
        /** The ELF number of its processor; 0 if it is not known. */
        private final int machine;
        private final boolean needsGlibc;

        private ElfFile(String problem, int machine, boolean needsGlibc) {
            this.problem = problem;
            this.machine = machine;
            this.needsGlibc = needsGlibc;
        }

        /** Whether somebody built the library for another processor than the released one is for. */
        private boolean isForAnother() {
            return machine != 0 && machine != ELF_X86_64;
        }

        /** Reads a file; a null or relative path gives a file of which nothing is known. */
        private static ElfFile read(String name) {
            Path file;
            try {
                file = name == null ? null : Paths.get(name);
            } catch (InvalidPathException e) {
                file = null;
            }
            if (file == null || !file.isAbsolute()) {
                return UNKNOWN;
            }
            if (!Files.exists(file)) {
                return new ElfFile("there is no such file.", 0, false);
            }
            byte[] header = new byte[20];
            try (DataInputStream stream = new DataInputStream(Files.newInputStream(file))) {
                stream.readFully(header);
                if (header[0] != 0x7f || header[1] != 'E' || header[2] != 'L' || header[3] != 'F') {
                    return new ElfFile("the file is not an ELF library: it is damaged, or something else.", 0, false);
                }
                String content = new String(Files.readAllBytes(file), StandardCharsets.ISO_8859_1);
                return of(header, content.contains("\0libc.so.6\0"));
            } catch (IOException e) {
                return new ElfFile("the file cannot be read: " + e + ".", 0, false);
            }
        }

        private static ElfFile of(byte[] header, boolean needsGlibc) {
            boolean littleEndian = header[5] == 1;
            int machine = littleEndian ? header[18] & 0xff | (header[19] & 0xff) << 8
                : (header[18] & 0xff) << 8 | header[19] & 0xff;
            boolean x8664 = header[4] == 2 && littleEndian && machine == ELF_X86_64;
            boolean jvmIsX8664 = System.getProperty("os.arch", "").equals(X86_64);
            return new ElfFile(x8664 == jvmIsX8664 ? "" : "wrong architecture: the library is for "
                + (x8664 ? "x86-64" : machineName(machine)) + ", and this JVM for " + System.getProperty("os.arch")
                + ". Both have to be for the same; the library exists for 64-bit x86 Linux.", machine, needsGlibc);
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
}
