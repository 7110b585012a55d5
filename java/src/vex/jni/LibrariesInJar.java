package vex.jni;

import java.io.IOException;
import java.io.InputStream;
import java.nio.file.FileAlreadyExistsException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.nio.file.attribute.FileAttribute;
import java.nio.file.attribute.PosixFilePermissions;

/** Loads the native libraries that a jar contains, through copies in a directory for temporary files. */
final class LibrariesInJar {
    /**
     * Needs the bridge and has nothing else. A JVM loads a file for one class loader only. So each class loader loads
     * its own copy of this one, and all of them share one bridge, which the dynamic linker finds by its name.
     */
    private static final String BINDING = "libTAVClientJNIBinding.so";
    /** The place of the libraries in a jar that contains them. */
    private static final String RESOURCES = "/natives/linux-x86_64/";
    private static final String[] IN_JAR = {LibraryLoader.TOOLKIT, LibraryLoader.BRIDGE, BINDING};

    private LibrariesInJar() {}

    static boolean exist() {
        return LibrariesInJar.class.getResource(RESOURCES + LibraryLoader.BRIDGE) != null;
    }

    static void load() {
        String tried = RESOURCES.substring(1) + LibraryLoader.BRIDGE + " in the jar";
        if (!LoadFailure.wrongSystem().isEmpty()) {
            throw LoadFailure.of(tried, LoadFailure.wrongSystem(), null);
        }
        Path directory;
        try {
            directory = extractAll();
        } catch (IOException e) {
            throw LoadFailure.of(tried, "it cannot be copied below java.io.tmpdir ("
                + System.getProperty("java.io.tmpdir") + "): " + e + ". Name a writable directory with"
                + " -Djava.io.tmpdir.", e);
        }
        try {
            String bridge = directory.resolve(LibraryLoader.BRIDGE).toString();
            LibraryLoader.loadFile(directory.resolve(BINDING).toString(), bridge, tried + ", copied to " + bridge);
        } finally {
            delete(directory);
        }
    }

    /** Copies the libraries to a new directory that nobody else can enter. */
    private static Path extractAll() throws IOException {
        Path directory = newDirectory();
        try {
            for (String name : IN_JAR) {
                extract(name, directory);
            }
            return directory;
        } catch (IOException | RuntimeException e) {
            delete(directory);
            throw e;
        }
    }

    /** Files.createTempDirectory would take as long as all copies, because it sets up a secure random generator. */
    private static Path newDirectory() throws IOException {
        Path parent = Paths.get(System.getProperty("java.io.tmpdir"));
        for (;;) {
            Path directory = parent.resolve("vex-natives-" + Long.toHexString(System.nanoTime()));
            try {
                return Files.createDirectory(directory, attribute("rwx------"));
            } catch (FileAlreadyExistsException e) {
                // The next name is another one.
            }
        }
    }

    private static FileAttribute<?> attribute(String permissions) {
        return PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString(permissions));
    }

    private static void extract(String name, Path directory) throws IOException {
        try (InputStream stream = LibrariesInJar.class.getResourceAsStream(RESOURCES + name)) {
            if (stream == null) {
                throw new IOException("the jar does not carry " + name);
            }
            Files.copy(stream, directory.resolve(name));
        }
    }

    /** The process keeps the loaded libraries; it no longer needs the files. */
    private static void delete(Path directory) {
        for (String name : IN_JAR) {
            deleteFile(directory.resolve(name));
        }
        deleteFile(directory);
    }

    private static void deleteFile(Path path) {
        try {
            Files.deleteIfExists(path);
        } catch (IOException e) {
            // Ignored: it is in a directory for temporary files.
        }
    }
}
