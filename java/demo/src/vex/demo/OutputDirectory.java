package vex.demo;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Base64;

/** The directory that the demo writes to; tells its user each file. */
class OutputDirectory {
    private static final int PEM_LINE = 64;

    private final Path directory;

    OutputDirectory(Path directory) throws DemoException {
        this.directory = directory;
        try {
            Files.createDirectories(directory);
        } catch (IOException e) {
            throw new DemoException("The output directory " + directory + " cannot be made: " + reason(e));
        }
    }

    Path path(String name) {
        return directory.resolve(name);
    }

    Path write(String name, byte[] content, String what) throws DemoException {
        Path file = path(name);
        try {
            Files.write(file, content);
        } catch (IOException e) {
            throw new DemoException("The file " + file + " cannot be written: " + reason(e));
        }
        System.out.printf("  wrote %s (%s)%n", file, what);
        return file;
    }

    /** RFC 7468: Base64 in lines of 64 between two labels. */
    Path writePem(String name, String label, byte[] der, String what) throws DemoException {
        byte[] lineEnd = {'\n'};
        String body = Base64.getMimeEncoder(PEM_LINE, lineEnd).encodeToString(der);
        String pem = "-----BEGIN " + label + "-----\n" + body + "\n-----END " + label + "-----\n";
        return write(name, pem.getBytes(StandardCharsets.US_ASCII), what);
    }

    private static String reason(IOException e) {
        return e.getClass().getSimpleName() + (e.getMessage() == null ? "" : ": " + e.getMessage());
    }
}
