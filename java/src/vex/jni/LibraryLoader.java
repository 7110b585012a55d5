package vex.jni;

import java.io.File;
import java.io.IOException;
import java.io.InputStream;
import java.nio.file.FileAlreadyExistsException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.nio.file.attribute.FileAttribute;
import java.nio.file.attribute.PosixFilePermissions;

/**
 * Loads the native library: from the path in the system property {@code vex.jni.library}, else from
 * {@code java.library.path}, else from the jar. Every failure is an {@link UnsatisfiedLinkError} that says why it
 * failed, what to do and what was tried.
 */
final class LibraryLoader {
    static final String PROPERTY = "vex.jni.library";

    static final String BRIDGE = "libTAVClientJNI.so";
    static final String TOOLKIT = "libVEXClientTKDll64.so";

    private static final String NAME = "TAVClientJNI";
    /**
     * Needs the bridge and has nothing else. A JVM loads a file for one class loader only. So each class loader loads
     * its own copy of this one, and all of them share one bridge, which the dynamic linker finds by its name.
     */
    private static final String BINDING = "libTAVClientJNIBinding.so";
    /** The place of the libraries in a jar that contains them. */
    private static final String RESOURCES = "/natives/linux-x86_64/";
    private static final String[] IN_JAR = {TOOLKIT, BRIDGE, BINDING};

    private LibraryLoader() {}

    /** Called when TAVClientJNI is initialised. Both classes have the class loader that gets the natives. */
    static void load() {
        String path = System.getProperty(PROPERTY, "");
        if (!path.isEmpty()) {
            load(path, path, path + ", from the system property " + PROPERTY);
        } else if (!loadFromLibraryPath()) {
            loadFromJar();
        }
    }

    private static void load(String file, String bridge, String tried) {
        try {
            System.load(file);
        } catch (UnsatisfiedLinkError e) {
            throw LoadFailure.of(tried, LoadFailure.explain(e, bridge), e);
        } catch (RuntimeException e) {
            throw LoadFailure.notAllowed(tried, e);
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
                throw LoadFailure.of(tried, LoadFailure.explain(e, file), e);
            }
            if (LibraryLoader.class.getResource(RESOURCES + BRIDGE) != null) {
                return false;
            }
            throw LoadFailure.of(tried, LoadFailure.explainAbsence(), e);
        } catch (RuntimeException e) {
            throw LoadFailure.notAllowed(tried, e);
        }
    }

    /** The path of the library in one of the directories; null if none has it. */
    private static String find(String directories) {
        for (String directory : directories.split(File.pathSeparator)) {
            File file = new File(directory.isEmpty() ? "." : directory, BRIDGE);
            if (file.exists()) {
                return file.getAbsolutePath();
            }
        }
        return null;
    }

    private static void loadFromJar() {
        String tried = RESOURCES.substring(1) + BRIDGE + " in the jar";
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
            String bridge = directory.resolve(BRIDGE).toString();
            load(directory.resolve(BINDING).toString(), bridge, tried + ", copied to " + bridge);
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
        try (InputStream stream = LibraryLoader.class.getResourceAsStream(RESOURCES + name)) {
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
