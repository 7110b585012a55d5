package vex.jni;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;

/** What this process has at one moment. */
record ProcessSize(long residentBytes, int descriptors, int threads) {
    private static final long PAGE = 4096;

    static ProcessSize now() throws IOException {
        String[] pages = Files.readString(Path.of("/proc/self/statm")).split(" ");
        String[] stat = Files.readString(Path.of("/proc/self/stat")).split("\\) ")[1].split(" ");
        String[] descriptors = Path.of("/proc/self/fd").toFile().list();
        return new ProcessSize(Long.parseLong(pages[1]) * PAGE, descriptors.length, Integer.parseInt(stat[17]));
    }
}
