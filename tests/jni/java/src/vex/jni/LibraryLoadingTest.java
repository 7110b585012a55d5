package vex.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** How the class finds its library, each way in a separate JVM. */
@Tag("natives")
class LibraryLoadingTest {
    private static final Path LIBRARY = Path.of(System.getProperty("vex.jni.library"));

    @TempDir
    private Path directory;

    /** The program of the other JVMs. */
    static final class PrintVersion {
        public static void main(String[] args) {
            System.out.println(new TAVClientJNI().GetSignVersion(0).replace("\0", ""));
        }
    }

    @Test
    void loadsFromTheFullPathInTheProperty() throws Exception {
        assertEquals("1.0.", runJava("-Dvex.jni.library=" + LIBRARY));
    }

    @Test
    void loadsFromTheLibraryPath() throws Exception {
        assertEquals("1.0.", runJava("-Djava.library.path=" + LIBRARY.getParent()));
    }

    @Test
    void ignoresAnEmptyProperty() throws Exception {
        assertEquals("1.0.", runJava("-Dvex.jni.library=", "-Djava.library.path=" + LIBRARY.getParent()));
    }

    @Test
    void namesThePathOfThePropertyInAFailure() throws Exception {
        String message = runJava("-Dvex.jni.library=/nowhere/libmissing.so");
        assertTrue(message.contains("java.lang.UnsatisfiedLinkError: The signing library cannot be loaded: "), message);
        assertTrue(message.contains("Tried: /nowhere/libmissing.so"), message);
        assertTrue(message.contains("-Dvex.jni.library=<full path of libTAVClientJNI.so>"), message);
    }

    @Test
    void namesTheLibraryPathInAFailure() throws Exception {
        String message = runJava("-Djava.library.path=/nowhere");
        assertTrue(message.contains("Tried: libTAVClientJNI.so in java.library.path (/nowhere)"), message);
        assertTrue(message.contains("-Dvex.jni.library=<full path of libTAVClientJNI.so>"), message);
    }

    @Test
    void refusesARelativePathWithTheReason() throws Exception {
        String message = runJava("-Dvex.jni.library=libTAVClientJNI.so");
        assertTrue(message.contains("Expecting an absolute path"), message);
    }

    @Test
    void quotesTheDynamicLinkerInAFailure() throws Exception {
        // The bridge alone, without the toolkit that it needs.
        Path lonely = Files.copy(LIBRARY, directory.resolve("libTAVClientJNI.so"));
        String message = runJava("-Dvex.jni.library=" + lonely);
        assertTrue(message.contains("libVEXClientTKDll64.so: cannot open shared object file"), message);
    }

    private static String runJava(String... options) throws Exception {
        List<String> command = new ArrayList<>(List.of(Run.jdkProgram("java"), "--enable-native-access=ALL-UNNAMED"));
        command.addAll(List.of(options));
        command.addAll(List.of("-cp", System.getProperty("java.class.path"), PrintVersion.class.getName()));
        return Run.of(new ProcessBuilder(command).redirectErrorStream(true)).output().strip();
    }
}
