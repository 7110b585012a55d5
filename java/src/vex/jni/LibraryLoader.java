package vex.jni;

import java.io.File;

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

    private LibraryLoader() {}

    /** Called when TAVClientJNI is initialised. Both classes have the class loader that gets the natives. */
    static void load() {
        String path = System.getProperty(PROPERTY, "");
        if (!path.isEmpty()) {
            loadFile(path, path, path + ", from the system property " + PROPERTY);
        } else if (!loadFromLibraryPath()) {
            LibrariesInJar.load();
        }
    }

    /** @param bridge the path of the bridge, if file is another library that needs it */
    static void loadFile(String file, String bridge, String tried) {
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
            if (LibrariesInJar.exist()) {
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
}
