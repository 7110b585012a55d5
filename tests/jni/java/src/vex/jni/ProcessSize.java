package vex.jni;

import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.nio.file.Files;
import java.nio.file.Path;
import javax.management.JMException;
import javax.management.ObjectName;

/** The resources that this process uses at one moment. */
public record ProcessSize(long residentBytes, int descriptors, int threads) {
    private static final long PAGE = 4096;

    /** First gives back the memory that malloc keeps for later, if this JVM can do that. */
    public static ProcessSize now() throws IOException {
        trim();
        return untrimmed();
    }

    /** With the memory that malloc keeps for later. */
    static ProcessSize untrimmed() throws IOException {
        String[] pages = Files.readString(Path.of("/proc/self/statm")).split(" ");
        String[] stat = Files.readString(Path.of("/proc/self/stat")).split("\\) ")[1].split(" ");
        String[] descriptors = Path.of("/proc/self/fd").toFile().list();
        return new ProcessSize(Long.parseLong(pages[1]) * PAGE, descriptors.length, Integer.parseInt(stat[17]));
    }

    private static void trim() {
        try {
            ManagementFactory.getPlatformMBeanServer().invoke(
                new ObjectName("com.sun.management:type=DiagnosticCommand"), "systemTrimNativeHeap",
                new Object[] {new String[0]}, new String[] {String[].class.getName()});
        } catch (JMException e) {
            System.out.println("This JVM cannot give memory back: " + e);
        }
    }
}
